#!/usr/bin/python3
"""Builds the coin detectors and the inputs of this example.

Both models look for bright discs of a few sizes in a grey picture: fixed convolutions compare
the mean inside a disc with the mean in the ring around it. What counts as a coin is decided by
the RPN parameters, a matrix with one column for each class of boxes and four rows: the lowest
score, the smallest and the largest diameter in pixels, and the margin in pixels that is added
on each side of a box. single.onnx has one class, multi.onnx one each for small, medium and
large discs.
"""

import json
import math
from pathlib import Path

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from skimage import data, transform

HERE = Path(__file__).resolve().parent
HEIGHT, WIDTH = 128, 160
PHOTO_PART = (slice(0, 300), slice(9, 384))
ROWS, COLUMNS = HEIGHT // 2, WIDTH // 2
CELL = 4
CELLS = (ROWS // CELL) * (COLUMNS // CELL)
DIAMETERS = np.array([15, 17, 19, 21, 24, 27])
CLASS_OF_DIAMETER = {"single": [0, 0, 0, 0, 0, 0], "multi": [0, 0, 1, 1, 2, 2]}
DISCS = len(DIAMETERS)
RING = 1.3
KERNEL = 19
NEIGHBOURHOOD = 7
BACKGROUND = 50.0
HALF_SCORE_CONTRAST = 60.0
SCORE_CONTRAST_STEP = 15.0
STEEP = 1e6

RPN_FILES = {
    "single-loose": [[0.2], [10], [40], [0]],
    "single-strict": [[0.9], [10], [40], [0]],
    "single-large": [[0.2], [23], [40], [3]],
    "multi-loose": [[0.2, 0.2, 0.2], [10, 10, 10], [40, 40, 40], [0, 0, 0]],
    "multi-strict": [[0.95, 0.8, 0.7], [16, 10, 10], [40, 40, 25], [0, 0, 0]],
}

# The coins as they were outlined by hand on the enlarged photograph: left, top, width and height
# in pixels, row by row.
COINS = [
    (5.6, 14.6, 19.2, 17.1), (30.7, 16.6, 16.6, 15.2), (52.4, 12.0, 20.2, 19.5),
    (78.1, 12.7, 20.1, 18.5), (105.1, 14.2, 17.9, 16.8), (126.4, 6.8, 25.6, 24.2),
    (6.8, 44.1, 18.0, 17.8), (32.0, 45.7, 16.3, 16.1), (53.2, 46.9, 17.2, 15.0),
    (75.4, 44.7, 17.6, 17.1), (101.0, 40.5, 21.8, 20.8), (131.4, 44.8, 16.8, 17.0),
    (6.9, 75.8, 16.2, 16.8), (30.3, 74.3, 18.9, 18.5), (53.8, 76.1, 16.8, 16.7),
    (76.8, 72.6, 20.4, 19.7), (103.1, 73.1, 19.9, 19.3), (130.9, 66.4, 27.2, 26.6),
    (3.9, 99.0, 24.2, 23.9), (35.7, 104.2, 18.4, 18.5), (57.6, 100.7, 24.6, 21.8),
    (89.9, 102.4, 21.2, 20.5), (113.8, 101.9, 21.7, 21.3), (139.2, 105.5, 19.6, 17.8),
]


class Graph:
    """Collects the nodes and constants of an ONNX graph."""

    def __init__(self):
        self.nodes = []
        self.constants = []

    def constant(self, value, dtype=np.float32):
        """Adds a constant and returns its name."""
        name = f"constant{len(self.constants)}"
        self.constants.append(numpy_helper.from_array(np.asarray(value, dtype), name))
        return name

    def add(self, operator, *inputs, name=None, **attributes):
        """Adds a node and returns the name of its output."""
        name = name or f"{operator.lower()}{len(self.nodes)}"
        self.nodes.append(helper.make_node(operator, inputs, [name], **attributes))
        return name

    def scale(self, x, factor, offset):
        """Returns factor * x + offset for numbers."""
        product = self.add("Mul", x, self.constant([factor]))
        return self.add("Add", product, self.constant([offset]))

    def reshape(self, x, *shape, name=None):
        return self.add("Reshape", x, self.constant(shape, np.int64), name=name)

    def at_least_zero(self, x):
        """Returns 1 where x >= 0 and 0 elsewhere, but for a very narrow ramp below 0."""
        short = self.add("Relu", self.add("Mul", x, self.constant([-STEEP])))
        return self.add("Relu", self.scale(short, -1.0, 1.0))


def disc_kernels():
    """Returns the disc-minus-ring kernels (discs, 1, K, K) for the halved picture.

    A kernel gives the contrast in grey levels. The edges are smoothed by computing it on a grid
    that is 8 times as fine.
    """
    fine = 8
    y, x = np.indices((KERNEL * fine, KERNEL * fine)) - (KERNEL * fine - 1) / 2
    radius = np.hypot(x, y) / fine

    def mean_over(mask):
        mean = mask.reshape(KERNEL, fine, KERNEL, fine).mean(axis=(1, 3))
        return mean / mean.sum()

    kernels = []
    for disc in DIAMETERS / 4:
        ring = (radius >= disc) & (radius < RING * disc)
        kernels.append(mean_over(radius < disc) - mean_over(ring))
    return np.stack(kernels)[:, None]


def add_contrast(graph):
    """Adds the contrast (1, discs, rows, columns) of every disc at every second pixel.

    The typical background is subtracted first, as the convolution takes the surroundings of the
    picture to be zero.
    """
    pixels = graph.add("Cast", "image", to=TensorProto.FLOAT)
    halved = graph.add("AveragePool", pixels, kernel_shape=[2, 2], strides=[2, 2])
    centred = graph.add("Add", halved, graph.constant([-BACKGROUND]))
    kernels = graph.constant(disc_kernels())
    return graph.add(
        "Conv", centred, kernels, kernel_shape=[KERNEL, KERNEL], pads=[KERNEL // 2] * 4
    )


def add_peaks(graph, contrast):
    """Adds a map that is 1 where a disc has more contrast than all discs in its neighbourhood."""
    flat = graph.reshape(contrast, 1, 1, DISCS, ROWS * COLUMNS)
    best_disc = graph.add("MaxPool", flat, kernel_shape=[DISCS, 1], strides=[1, 1])
    best = graph.add(
        "MaxPool",
        graph.reshape(best_disc, 1, 1, ROWS, COLUMNS),
        kernel_shape=[NEIGHBOURHOOD] * 2,
        strides=[1, 1],
        pads=[NEIGHBOURHOOD // 2] * 4,
    )
    best_of_all = graph.add("Concat", *[best] * DISCS, axis=1)
    return graph.at_least_zero(graph.add("Sub", contrast, best_of_all))


def add_parameters(graph, kind):
    """Adds the RPN parameters as four rows (1, discs): each disc gets its class's column."""
    classes = np.array(CLASS_OF_DIAMETER[kind])
    selection = np.arange(classes.max() + 1)[:, None] == classes
    matrix = graph.reshape("rpn", 4, 1) if kind == "single" else "rpn"
    by_disc = graph.add("MatMul", matrix, graph.constant(selection))
    axis = graph.constant([0], np.int64)
    rows = []
    for row in range(4):
        bounds = (graph.constant([n], np.int64) for n in (row, row + 1))
        rows.append(graph.add("Slice", by_disc, *bounds, axis))
    return rows


def add_spread(graph, row):
    """Adds the spreading of one value per disc (1, discs) over the map."""
    point = graph.reshape(row, 1, DISCS, 1, 1)
    sizes = graph.constant([1, DISCS, ROWS, COLUMNS], np.int64)
    return graph.add(
        "Resize", point, "", "", sizes, mode="nearest", nearest_mode="floor",
        coordinate_transformation_mode="asymmetric",
    )


def add_size_gate(graph, smallest, largest):
    """Adds the row (1, discs) that is 1 for discs with smallest <= diameter <= largest."""
    diameters = graph.constant(DIAMETERS[None])
    minus_smallest = graph.add("Mul", smallest, graph.constant([-1.0]))
    minus_diameters = graph.constant(-DIAMETERS[None])
    above = graph.at_least_zero(graph.add("Add", minus_smallest, diameters))
    below = graph.at_least_zero(graph.add("Add", largest, minus_diameters))
    return graph.add("Mul", above, below)


def add_sums(graph, kind, gate, score, half_size):
    """Adds maps (1, 4, rows, columns) of the discs that passed the gate.

    The channels are presence, class (counted from 1), score and half the box size; at most one
    disc passes at a place, so that a sum over the discs is the value of that one.
    """
    weights = np.zeros((4, 3 * DISCS, 1, 1))
    weights[0, :DISCS, 0, 0] = 1
    weights[1, :DISCS, 0, 0] = np.array(CLASS_OF_DIAMETER[kind]) + 1
    weights[2, DISCS : 2 * DISCS] = 1
    weights[3, 2 * DISCS :] = 1
    products = [graph.add("Mul", gate, values) for values in (score, half_size)]
    stacked = graph.add("Concat", gate, *products, axis=1)
    return graph.add("Conv", stacked, graph.constant(weights), kernel_shape=[1, 1])


def add_positions(graph, sums):
    """Adds the channels x and y of the box centres, in pixels, where a disc is present."""
    y, x = 2 * np.indices((ROWS, COLUMNS)) + 1
    axis, zero, one = (graph.constant([n], np.int64) for n in (1, 0, 1))
    present = graph.add("Slice", sums, zero, one, axis)
    twice = graph.add("Concat", present, present, axis=1)
    return graph.add("Mul", twice, graph.constant(np.stack([x, y])[None]))


def add_table(graph, sums, positions):
    """Adds the output `boxes` (cells, 6): class, score, left, top, right, bottom.

    A row stands for a cell of 8x8 pixels, which can hold no more than one peak; the row of a
    cell without a box is all zero.
    """
    stacked = graph.add("Concat", sums, positions, axis=1)
    cells = graph.add("MaxPool", stacked, kernel_shape=[CELL, CELL], strides=[CELL, CELL])
    half, x, y = 3, 4, 5
    weights = np.zeros((6, 6, 1, 1))
    weights[0, 1] = weights[1, 2] = 1
    weights[[2, 4], x] = weights[[3, 5], y] = 1
    weights[[2, 3], half], weights[[4, 5], half] = -1, 1
    table = graph.add("Conv", cells, graph.constant(weights), kernel_shape=[1, 1])
    rows = graph.add("Transpose", table, perm=[0, 2, 3, 1])
    graph.reshape(rows, CELLS, 6, name="boxes")


def add_detector(graph, kind):
    """Adds the whole detector, from `image` and `rpn` to `boxes`."""
    contrast = add_contrast(graph)
    offset = -HALF_SCORE_CONTRAST / SCORE_CONTRAST_STEP
    score = graph.add("Sigmoid", graph.scale(contrast, 1 / SCORE_CONTRAST_STEP, offset))
    lowest, smallest, largest, margin = add_parameters(graph, kind)
    above = graph.at_least_zero(graph.add("Sub", score, add_spread(graph, lowest)))
    size_gate = add_spread(graph, add_size_gate(graph, smallest, largest))
    gate = graph.add("Mul", add_peaks(graph, contrast), graph.add("Mul", above, size_gate))
    half_size = graph.add("Add", margin, graph.constant(DIAMETERS[None] / 2))
    sums = add_sums(graph, kind, gate, score, add_spread(graph, half_size))
    add_table(graph, sums, add_positions(graph, sums))


def onnx_model(kind):
    """Returns a detector: image uint8 (1, 1, 128, 160), rpn (1, 4) or (4, 3) -> boxes."""
    graph = Graph()
    add_detector(graph, kind)
    rpn_shape = [1, 4] if kind == "single" else [4, max(CLASS_OF_DIAMETER[kind]) + 1]
    onnx_graph = helper.make_graph(
        graph.nodes,
        kind,
        [
            helper.make_tensor_value_info("image", TensorProto.UINT8, [1, 1, HEIGHT, WIDTH]),
            helper.make_tensor_value_info("rpn", TensorProto.FLOAT, rpn_shape),
        ],
        [helper.make_tensor_value_info("boxes", TensorProto.FLOAT, [CELLS, 6])],
        graph.constants,
    )
    model = helper.make_model(onnx_graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 7
    onnx.checker.check_model(model)
    return model


def write_photo():
    """Writes the reduced photograph as raw pixels, row by row, and the list with it."""
    photo = data.coins()[PHOTO_PART]
    reduced = transform.resize(photo, (HEIGHT, WIDTH), anti_aliasing=True, preserve_range=True)
    reduced.round().astype(np.uint8).tofile(HERE / "coins.bin")
    (HERE / "list.txt").write_text("coins.bin\n")


def write_annotations():
    """Writes the coins as annotations in COCO's format."""
    objects = [
        {"id": number, "image_id": 1, "category_id": 1, "bbox": box, "iscrowd": 0,
         "area": round(math.pi / 4 * box[2] * box[3], 1)}
        for number, box in enumerate(COINS, 1)
    ]
    annotations = {
        "images": [{"id": 1, "file_name": "coins.bin", "width": WIDTH, "height": HEIGHT}],
        "categories": [{"id": 1, "name": "coin"}],
        "annotations": objects,
    }
    (HERE / "annotations.json").write_text(json.dumps(annotations, indent=1) + "\n")


def write_parameters():
    """Writes the RPN parameter files, and the list of runs: name, model and RPN file."""
    (HERE / "rpn").mkdir(exist_ok=True)
    runs = []
    for name, matrix in RPN_FILES.items():
        rows = [" ".join(str(value) for value in row) for row in matrix]
        (HERE / "rpn" / f"{name}.txt").write_text("\n".join(rows) + "\n")
        runs.append(f"{name} {name.partition('-')[0]}.onnx rpn/{name}.txt")
    (HERE / "runs.txt").write_text("\n".join(runs) + "\n")


def main():
    for kind in CLASS_OF_DIAMETER:
        onnx.save(onnx_model(kind), str(HERE / f"{kind}.onnx"))
    write_photo()
    write_annotations()
    write_parameters()
    (HERE / "quilm.json").write_text('{"row_alignment": 32}\n')


if __name__ == "__main__":
    main()
