#!/usr/bin/python3
"""Trains a small classifier of photographs and writes this example's models and photographs.

The data are crops of eight photographs that come with scikit-image. Their right-hand thirds are
held out: the example's photographs are cut from there, and none of them is seen in training. The
trained network is written twice, computing in floats and in 8-bit integers.
"""

import sys
from pathlib import Path

import numpy as np
import skimage
from PIL import Image

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent)]
# pylint: disable=wrong-import-position
from digits.train import (adam_step, convolve, convolve_backward, max_pool, max_pool_backward,
                          softmax)
from models import save_models

PICTURES = {"brick": "brick.png", "cat": "chelsea.png", "coffee": "coffee.png",
            "coins": "coins.png", "grass": "grass.png", "gravel": "gravel.png",
            "sky": "hubble_deep_field.jpg", "tissue": "ihc.png"}
SIDE = 48  # pixels of the network's input
CHANNELS = (3, 12, 16, 24)
SEED = 3
STEPS = 500
BATCH = 20
LEARNING_RATE = 8e-3
CROPS = 200  # per picture, to train with
PHOTOGRAPHS = 5  # per picture, for the example
PHOTOGRAPH_SIDE = 96  # pixels


def sources():
    """The pictures, as (name, part to train with, part held out)."""
    folder = Path(skimage.__file__).parent / "data"
    for name, file in PICTURES.items():
        picture = Image.open(folder / file).convert("RGB")
        border = int(picture.width * 0.66)
        yield (name, picture.crop((0, 0, border, picture.height)),
               picture.crop((border, 0, picture.width, picture.height)))


def random_crop(picture, rng, low, high):
    """A square of low to high pixels somewhere in the picture."""
    side = int(rng.integers(low, min(high, *picture.size) + 1))
    left, top = (int(rng.integers(0, size - side + 1)) for size in picture.size)
    return picture.crop((left, top, left + side, top + side))


def varied(picture, rng):
    """A picture turned, mirrored, sometimes without its colours, brighter or with less contrast."""
    pixels = np.asarray(picture.resize((SIDE, SIDE), Image.BILINEAR), np.float32)
    pixels = np.rot90(pixels, rng.integers(4))[:, ::rng.choice((-1, 1))]
    if rng.random() < 0.3:
        pixels = pixels.mean(axis=2, keepdims=True).repeat(3, axis=2)
    return np.clip((pixels - 128) * rng.uniform(0.7, 1.2) + 128 + rng.uniform(-30, 30), 0, 255)


def training_data(rng):
    """Pixels (N, 3, SIDE, SIDE) from 0 to 255, and the number of the picture each is from."""
    crops = [(varied(random_crop(part, rng, 80, 160), rng), label)
             for label, (_, part, _) in enumerate(sources()) for _ in range(CROPS)]
    pixels, labels = zip(*crops)
    return np.stack(pixels).transpose(0, 3, 1, 2), np.array(labels)


def initial_weights(rng):
    """He-initialised weights: three 3x3 convolutions and one dense layer."""
    weights = {}
    for layer, (taken, made) in enumerate(zip(CHANNELS, CHANNELS[1:]), 1):
        weights[f"w{layer}"] = rng.normal(0, np.sqrt(2 / (9 * taken)), (made, taken, 3, 3))
        weights[f"b{layer}"] = np.zeros(made)
    weights["wd"] = rng.normal(0, np.sqrt(2 / CHANNELS[-1]), (CHANNELS[-1], len(PICTURES)))
    weights["bd"] = np.zeros(len(PICTURES))
    return {name: value.astype(np.float32) for name, value in weights.items()}


def scaled(pixels):
    """What the network computes with, from pixels of 0 to 255."""
    return (pixels - 128) / 64


def forward(weights, pixels):
    """The probabilities (N, classes), and what the backward pass needs of every layer."""
    x, states = scaled(pixels), []
    for layer in (1, 2, 3):
        y, columns = convolve(x, weights[f"w{layer}"], weights[f"b{layer}"])
        x, mask = max_pool(y)
        mask = mask.astype(np.float32)
        states.append((y, columns, mask))
    features = x.mean(axis=(2, 3))
    return softmax(features @ weights["wd"] + weights["bd"]), (states, x.shape, features)


def gradients(weights, pixels, labels):
    """The gradients of the mean cross entropy, and the share of right answers."""
    probabilities, (states, shape, features) = forward(weights, pixels)
    error = (probabilities - np.eye(len(PICTURES), dtype=np.float32)[labels]) / len(labels)
    grads = {"wd": features.T @ error, "bd": error.sum(axis=0)}
    share = (error @ weights["wd"].T) / np.float32(np.prod(shape[2:]))  # of every pixel in the mean
    grad = np.broadcast_to(share[:, :, None, None], shape)
    for layer, (y, columns, mask) in zip((3, 2), reversed(states)):
        grad, grads[f"w{layer}"], grads[f"b{layer}"] = convolve_backward(
            max_pool_backward(grad, mask), y, columns, weights[f"w{layer}"])
    # The pictures themselves need no gradient, which would take the most time of all.
    y, columns, mask = states[0]
    flat = (max_pool_backward(grad, mask) * (y > 0)).transpose(1, 0, 2, 3).reshape(CHANNELS[1], -1)
    grads["w1"] = (flat @ columns.reshape(flat.shape[1], -1)).reshape(weights["w1"].shape)
    grads["b1"] = flat.sum(axis=1)
    return grads, (probabilities.argmax(axis=1) == labels).mean()


def train(pixels, labels, rng):
    """The weights after STEPS batches with a linearly falling learning rate."""
    weights = initial_weights(rng)
    state = {name: (np.zeros_like(w), np.zeros_like(w)) for name, w in weights.items()}
    for step in range(STEPS):
        picked = rng.integers(len(labels), size=BATCH)
        grads, right = gradients(weights, pixels[picked].astype(np.float32), labels[picked])
        adam_step(weights, grads, state, step + 1, LEARNING_RATE * (1 - step / STEPS))
        if step % 100 == 99:
            print(f"step {step + 1}: {100 * right:.0f} % of the batch right", flush=True)
    return weights


def write_photographs(rng):
    """Cuts the example's photographs from the held-out parts; returns them as the network sees
    them, (N, 3, SIDE, SIDE), and their labels."""
    (HERE / "photographs").mkdir(exist_ok=True)
    seen = []
    for label, (name, _, part) in enumerate(sources()):
        for number in range(1, PHOTOGRAPHS + 1):
            crop = random_crop(part, rng, 96, 150).resize((PHOTOGRAPH_SIDE,) * 2, Image.LANCZOS)
            path = HERE / "photographs" / f"{name}_{number}.jpg"
            crop.save(path, quality=85)
            small = Image.open(path).resize((SIDE, SIDE), Image.BILINEAR)
            seen.append((np.asarray(small, np.float32).transpose(2, 0, 1), label))
    pixels, labels = zip(*seen)
    return np.stack(pixels), np.array(labels)


def main():
    rng = np.random.default_rng(SEED)
    pixels, labels = training_data(rng)
    weights = train(pixels, labels, rng)
    photographs, right = write_photographs(rng)
    answers = forward(weights, photographs)[0].argmax(axis=1)
    print(f"photographs: {(answers == right).sum()} of {len(right)} right")
    states = forward(weights, pixels[::8])[1]
    ranges = [float(np.quantile(y, 0.9999)) for y, _, _ in states[0]] + [float(states[2].max())]
    save_models(HERE, weights, ranges, list(PICTURES))


if __name__ == "__main__":
    main()
