#!/usr/bin/python3
"""Fits the electrocardiogram predictor and writes the model and the inputs of this example.

The recording has 360 samples a second. A frame holds 4 consecutive samples, so a frame lasts
11.1 ms; after each frame the network predicts the last sample of the next frame. The recurrent
layer is an LSTM with fixed random weights whose hidden state is rich in features of the recent
past; only the linear read-out of that state is fitted, by ridge regression. The first 80 % of
the recording serve to fit, the rest is held out and gives the example's inputs.
"""

import warnings
from pathlib import Path

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from scipy.misc import electrocardiogram

HERE = Path(__file__).resolve().parent
SEED = 0
FRAME = 4
MAX_FRAMES = 256
HIDDEN = 48
FORGET_BIAS = -1.0
BIAS_SPREAD = 0.3
RIDGE = 1e-2
FIT_SHARE = 0.8
SEQUENCE_FRAMES = (200, 256, 64, 120)
RECURRENT_NET_TYPE = "2"


def random_lstm(rng):
    """Returns LSTM weights W (4H, F), R (4H, H), B (4H), gates in ONNX order i, o, f, c.

    The negative forget bias keeps the memory short: what happened within the last few frames
    matters most for the next one.
    """
    bias = rng.normal(0.0, BIAS_SPREAD, 4 * HIDDEN)
    bias[2 * HIDDEN : 3 * HIDDEN] += FORGET_BIAS
    return {
        "W": rng.normal(0.0, FRAME**-0.5, (4 * HIDDEN, FRAME)),
        "R": rng.normal(0.0, HIDDEN**-0.5, (4 * HIDDEN, HIDDEN)),
        "B": bias,
    }


def sigmoid(x):
    return 1.0 / (1.0 + np.exp(-x))


def hidden_states(lstm, frames):
    """Returns the hidden states (T, N, H) for N sequences of frames (T, N, F)."""
    hidden = np.zeros((frames.shape[1], HIDDEN))
    cell = np.zeros_like(hidden)
    states = []
    for frame in frames:
        gates = frame @ lstm["W"].T + hidden @ lstm["R"].T + lstm["B"]
        enter, leave, keep, value = np.split(gates, 4, axis=1)
        cell = sigmoid(keep) * cell + sigmoid(enter) * np.tanh(value)
        hidden = sigmoid(leave) * np.tanh(cell)
        states.append(hidden)
    return np.stack(states)


def sequences(frames, step):
    """Cuts a recording (n, F) into sequences that start every `step` frames.

    Returns the frames (T, N, F) and the values to predict (T, N): the last sample of each
    next frame.
    """
    starts = np.arange(0, len(frames) - MAX_FRAMES, step)
    index = starts + np.arange(MAX_FRAMES)[:, None]
    return frames[index], frames[index + 1, -1]


def ridge(features, wanted):
    """Returns the weights of the linear model features (n, k) + constant -> wanted (n)."""
    design = np.column_stack([features, np.ones(len(features))])
    normal = design.T @ design + RIDGE * np.eye(design.shape[1])
    return np.linalg.solve(normal, design.T @ wanted)


def apply_linear(weights, features):
    """Returns the linear model's values for features (..., k)."""
    return features @ weights[:-1] + weights[-1]


def rmse(a, b):
    return np.sqrt(np.mean((a - b) ** 2))


def fit(lstm, recording):
    """Returns read-out weights (H + 1) fitted to the recording (n, F)."""
    frames, wanted = sequences(recording, MAX_FRAMES // 2)
    return ridge(hidden_states(lstm, frames).reshape(-1, HIDDEN), wanted.ravel())


def report(lstm, readout, fit_part, held_out):
    """Prints the error over the whole held-out part, next to those of two simple predictors."""
    fit_frames, fit_wanted = sequences(fit_part, MAX_FRAMES)
    linear = ridge(fit_frames.reshape(-1, FRAME), fit_wanted.ravel())
    frames, wanted = sequences(held_out, MAX_FRAMES)
    predicted = apply_linear(readout, hidden_states(lstm, frames))
    print("held-out error (RMSE), one frame ahead:")
    print(f"  this network            {rmse(predicted, wanted):.3f} mV")
    print(f"  linear in one frame     {rmse(apply_linear(linear, frames), wanted):.3f} mV")
    print(f"  the last value again    {rmse(frames[..., -1], wanted):.3f} mV")


def initializers(lstm, readout):
    """Returns the constants of the model; ONNX wants the LSTM's with a leading direction axis."""
    constants = {
        "W": lstm["W"][None],
        "R": lstm["R"][None],
        "B": np.concatenate([lstm["B"], np.zeros(4 * HIDDEN)])[None],
        "readout": readout[None, :-1],
        "offset": readout[-1:],
    }
    tensors = [numpy_helper.from_array(v.astype(np.float32), k) for k, v in constants.items()]
    for name, shape in (("states", [MAX_FRAMES, HIDDEN]), ("row", [1, MAX_FRAMES])):
        tensors.append(numpy_helper.from_array(np.array(shape, np.int64), name + "_shape"))
    return tensors


def onnx_model(lstm, readout):
    """Returns the predictor as ONNX: frames (T, 1, F), marks (1, T) -> prediction (1, T).

    The marks are 1 for the frames of the sequence and 0 after its end; they blank the
    predictions which the read-out's offset and the fading state would still make there.
    """
    nodes = [
        helper.make_node("LSTM", ["frames", "W", "R", "B"], ["Y"], hidden_size=HIDDEN),
        helper.make_node("Reshape", ["Y", "states_shape"], ["states"]),
        helper.make_node("Gemm", ["states", "readout", "offset"], ["values"], transB=1),
        helper.make_node("Reshape", ["values", "row_shape"], ["row"]),
        helper.make_node("Mul", ["row", "marks"], ["prediction"]),
    ]
    shapes = {"frames": [MAX_FRAMES, 1, FRAME], "marks": [1, MAX_FRAMES]}
    graph = helper.make_graph(
        nodes,
        "ecg",
        [helper.make_tensor_value_info(n, TensorProto.FLOAT, s) for n, s in shapes.items()],
        [helper.make_tensor_value_info("prediction", TensorProto.FLOAT, [1, MAX_FRAMES])],
        initializers(lstm, readout),
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 7
    helper.set_model_props(model, {"quilm.net_type": RECURRENT_NET_TYPE})
    onnx.checker.check_model(model)
    return model


def write_inputs(held_out):
    """Writes sequences of several lengths, evenly spread over the held-out part (n, F).

    The frame files hold only the frames that are there; the mark files always hold MAX_FRAMES
    marks. The list names the inputs, so the two of a sequence may come in either order.
    """
    (HERE / "data").mkdir(exist_ok=True)
    spacing = (len(held_out) - MAX_FRAMES) // len(SEQUENCE_FRAMES)
    lines = []
    for number, count in enumerate(SEQUENCE_FRAMES):
        frames = held_out[number * spacing :][:count]
        marks = (np.arange(MAX_FRAMES) < count).astype("<f4")
        pair = []
        for name, values in (("marks", marks), ("frames", frames.astype("<f4"))):
            path = f"data/{number}_{name}_{count}.bin"
            values.tofile(HERE / path)
            pair.append(f"{name}:{path}")
        lines += pair if number % 2 == 0 else reversed(pair)
    (HERE / "list.txt").write_text("\n".join(lines) + "\n")


def main():
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)
        samples = electrocardiogram()
    recording = samples[: len(samples) // FRAME * FRAME].reshape(-1, FRAME)
    border = int(FIT_SHARE * len(recording))
    fit_part, held_out = recording[:border], recording[border:]
    lstm = random_lstm(np.random.default_rng(SEED))
    readout = fit(lstm, fit_part)
    report(lstm, readout, fit_part, held_out)
    onnx.save(onnx_model(lstm, readout), str(HERE / "ecg.onnx"))
    write_inputs(held_out)
    (HERE / "quilm.json").write_text('{"row_alignment": 32}\n')


if __name__ == "__main__":
    main()
