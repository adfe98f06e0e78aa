#!/usr/bin/python3
"""Trains the digit network and writes the model and the inputs of this example.

The data are the 1797 handwritten digits of scikit-learn: 8x8 pixels with values 0..16. The
first 1400 train the network, the last 397 are held out; the example's inputs are taken from
the held-out ones.
"""

from pathlib import Path

import numpy as np
import onnx
from numpy.lib.stride_tricks import sliding_window_view
from onnx import TensorProto, helper, numpy_helper
from sklearn.datasets import load_digits

HERE = Path(__file__).resolve().parent
SEED = 1
TRAINING_SAMPLES = 1400
EPOCHS = 60
BATCH = 50
LEARNING_RATE = 1.5e-2
WEIGHT_DECAY = 0.1
CHANNELS = (10, 12)
CLASSES = 10
SAMPLES_PER_CLASS = 2
PIXEL_SCALE = 1.0 / 16.0
WARP_SPREAD = 0.12
WARP_SHIFT = 0.6


def initial_weights(rng):
    """Returns He-initialised weights: two 3x3 convolutions and one dense layer."""
    first, second = CHANNELS

    def he(*shape, fan_in):
        return rng.normal(0.0, np.sqrt(2.0 / fan_in), shape)

    return {
        "conv1_w": he(first, 1, 3, 3, fan_in=9),
        "conv1_b": np.zeros(first),
        "conv2_w": he(second, first, 3, 3, fan_in=9 * first),
        "conv2_b": np.zeros(second),
        "dense_w": he(second * 16, CLASSES, fan_in=second * 16),
        "dense_b": np.zeros(CLASSES),
    }


def patches(x):
    """Returns the zero-padded 3x3 surroundings of every pixel.

    x is (N, C, H, W); the result is (N, H, W, C*9), in the element order of a kernel.
    """
    padded = np.pad(x, ((0, 0), (0, 0), (1, 1), (1, 1)))
    windows = sliding_window_view(padded, (3, 3), axis=(2, 3))
    return windows.transpose(0, 2, 3, 1, 4, 5).reshape(*x[:, 0].shape, -1)


def convolve(x, weight, bias):
    """Returns ReLU(convolution) as (N, K, H, W), and the patches for the backward pass."""
    columns = patches(x)
    y = columns @ weight.reshape(len(weight), -1).T + bias
    return np.maximum(y, 0.0).transpose(0, 3, 1, 2), columns


def convolve_backward(grad, y, columns, weight):
    """Returns the gradients of input, weight and bias of convolve().

    grad and y are (N, K, H, W). The input gradient is the convolution of the output gradient
    with the mirrored kernels.
    """
    grad = grad * (y > 0.0)
    flat = grad.transpose(1, 0, 2, 3).reshape(len(weight), -1)
    grad_weight = (flat @ columns.reshape(-1, columns.shape[-1])).reshape(weight.shape)
    mirrored = weight[:, :, ::-1, ::-1].transpose(1, 0, 2, 3)
    grad_x = patches(grad) @ mirrored.reshape(len(mirrored), -1).T
    return grad_x.transpose(0, 3, 1, 2), grad_weight, flat.sum(axis=1)


def max_pool(x):
    """Returns the 2x2 maxima of x (N, C, H, W), and the mask of the winning pixels."""
    n, c, h, w = x.shape
    tiles = x.reshape(n, c, h // 2, 2, w // 2, 2)
    y = tiles.max(axis=(3, 5), keepdims=True)
    mask = tiles == y
    return y[:, :, :, 0, :, 0], mask / mask.sum(axis=(3, 5), keepdims=True)


def max_pool_backward(grad, mask):
    """Spreads the gradient (N, C, H/2, W/2) over the winning pixels: (N, C, H, W)."""
    n, c, h, _, w, _ = mask.shape
    return (mask * grad[:, :, :, None, :, None]).reshape(n, c, 2 * h, 2 * w)


def softmax(logits):
    """Returns the class probabilities of logits (N, classes)."""
    e = np.exp(logits - logits.max(axis=1, keepdims=True))
    return e / e.sum(axis=1, keepdims=True)


def forward(weights, x):
    """Returns the probabilities (N, 10) of pictures x (N, 1, 8, 8), and the layer states."""
    y1, columns1 = convolve(x, weights["conv1_w"], weights["conv1_b"])
    pooled, mask = max_pool(y1)
    y2, columns2 = convolve(pooled, weights["conv2_w"], weights["conv2_b"])
    features = y2.reshape(len(x), -1)
    probabilities = softmax(features @ weights["dense_w"] + weights["dense_b"])
    return probabilities, (y1, columns1, mask, y2, columns2, features)


def gradients(weights, x, labels):
    """Returns the gradients of the mean cross entropy of one batch."""
    probabilities, (y1, columns1, mask, y2, columns2, features) = forward(weights, x)
    error = (probabilities - np.eye(CLASSES)[labels]) / len(x)
    grad_y2 = (error @ weights["dense_w"].T).reshape(y2.shape)
    grad_pooled, conv2_w, conv2_b = convolve_backward(grad_y2, y2, columns2, weights["conv2_w"])
    grad_y1 = max_pool_backward(grad_pooled, mask)
    _, conv1_w, conv1_b = convolve_backward(grad_y1, y1, columns1, weights["conv1_w"])
    return {
        "conv1_w": conv1_w,
        "conv1_b": conv1_b,
        "conv2_w": conv2_w,
        "conv2_b": conv2_b,
        "dense_w": features.T @ error,
        "dense_b": error.sum(axis=0),
    }


def adam_step(weights, grads, state, step, rate):
    """Updates the weights in place by one step of Adam with decoupled weight decay."""
    for name, grad in grads.items():
        mean, square = state[name]
        mean += 0.1 * (grad - mean)
        square += 0.001 * (grad * grad - square)
        corrected = mean / (1.0 - 0.9**step)
        scale = np.sqrt(square / (1.0 - 0.999**step)) + 1e-8
        weights[name] -= rate * (corrected / scale + WEIGHT_DECAY * weights[name])


def warp(x, rng):
    """Returns pictures (N, 1, 8, 8) moved, turned and stretched a little, each by other amounts.

    The held-out digits come from other writers than the training digits; the distortion keeps
    the network from learning the training hands by heart. Pixels are interpolated linearly.
    """
    n, size = len(x), x.shape[-1]
    centre = (size - 1) / 2
    grid = np.indices((size, size)).reshape(2, -1) - centre
    matrix = np.eye(2) + rng.normal(0.0, WARP_SPREAD, (n, 2, 2))
    shift = rng.uniform(-WARP_SHIFT, WARP_SHIFT, (n, 2, 1))
    position = np.clip(matrix @ grid + shift + centre + 1, 0.0, size + 0.999)
    row, column = position.astype(int).transpose(1, 0, 2)
    down, right = (position % 1.0).transpose(1, 0, 2)
    padded = np.pad(x[:, 0], ((0, 0), (1, 1), (1, 1)))
    sample = np.arange(n)[:, None]
    upper, lower = (
        padded[sample, r, column] * (1 - right) + padded[sample, r, column + 1] * right
        for r in (row, row + 1)
    )
    return (upper * (1 - down) + lower * down).reshape(x.shape)


def train(x, labels):
    """Returns the weights after EPOCHS passes with a linearly falling learning rate."""
    rng = np.random.default_rng(SEED)
    weights = initial_weights(rng)
    state = {name: (np.zeros_like(w), np.zeros_like(w)) for name, w in weights.items()}
    batches = len(x) // BATCH
    steps = EPOCHS * batches
    for step in range(steps):
        if step % batches == 0:
            order = rng.permutation(len(x)).reshape(batches, BATCH)
        picked = order[step % batches]
        grads = gradients(weights, warp(x[picked], rng), labels[picked])
        adam_step(weights, grads, state, step + 1, LEARNING_RATE * (1.0 - step / steps))
    return weights


def onnx_model(weights):
    """Returns the network as ONNX: image uint8 (N, 1, 8, 8) -> probabilities (N, 10)."""
    conv = {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]}
    nodes = [
        helper.make_node("Cast", ["image"], ["pixels"], to=TensorProto.FLOAT),
        helper.make_node("Mul", ["pixels", "scale"], ["scaled"]),
        helper.make_node("Conv", ["scaled", "conv1_w", "conv1_b"], ["conv1"], **conv),
        helper.make_node("Relu", ["conv1"], ["relu1"]),
        helper.make_node("MaxPool", ["relu1"], ["pool"], kernel_shape=[2, 2], strides=[2, 2]),
        helper.make_node("Conv", ["pool", "conv2_w", "conv2_b"], ["conv2"], **conv),
        helper.make_node("Relu", ["conv2"], ["relu2"]),
        helper.make_node("Flatten", ["relu2"], ["features"], axis=1),
        helper.make_node("Gemm", ["features", "dense_w", "dense_b"], ["logits"], transB=1),
        helper.make_node("Softmax", ["logits"], ["probabilities"], axis=1),
    ]
    constants = dict(weights, dense_w=weights["dense_w"].T, scale=np.array([PIXEL_SCALE]))
    graph = helper.make_graph(
        nodes,
        "digits",
        [helper.make_tensor_value_info("image", TensorProto.UINT8, ["N", 1, 8, 8])],
        [helper.make_tensor_value_info("probabilities", TensorProto.FLOAT, ["N", CLASSES])],
        [numpy_helper.from_array(v.astype(np.float32), k) for k, v in constants.items()],
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 7
    onnx.checker.check_model(model)
    return model


def write_inputs(pictures, labels):
    """Writes the first held-out digits of each class as raw uint8 files, and the list of them."""
    picked = [i for c in range(CLASSES) for i in np.flatnonzero(labels == c)[:SAMPLES_PER_CLASS]]
    (HERE / "images").mkdir(exist_ok=True)
    names = []
    for number, index in enumerate(picked):
        names.append(f"images/{number:02d}_label{labels[index]}.bin")
        pictures[index].astype(np.uint8).tofile(HERE / names[-1])
    (HERE / "list.txt").write_text("\n".join(names) + "\n")


def main():
    digits = load_digits()
    pictures = digits.images[:, None]
    training, held_out = slice(0, TRAINING_SAMPLES), slice(TRAINING_SAMPLES, None)
    scaled = pictures * PIXEL_SCALE
    weights = train(scaled[training], digits.target[training])
    for name, part in (("training", training), ("held-out", held_out)):
        right = forward(weights, scaled[part])[0].argmax(axis=1) == digits.target[part]
        print(f"{name} accuracy: {right.sum()} of {len(right)} ({100 * right.mean():.1f} %)")
    onnx.save(onnx_model(weights), str(HERE / "digits.onnx"))
    write_inputs(pictures[held_out], digits.target[held_out])
    (HERE / "quilm.json").write_text('{"row_alignment": 32}\n')


if __name__ == "__main__":
    main()
