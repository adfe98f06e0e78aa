"""Writes the photograph classifier as ONNX, computing in floats and in 8-bit integers.

Both take `photograph`, uint8 (N, 3, 48, 48), and give `probabilities`, float32 (N, classes). In the
8-bit one pictures, weights and what every layer makes are 8-bit integers with a scale; the runtime
multiplies them as integers and adds up in 32 bits.
"""

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

CONVOLUTION = {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1]}
POOL = {"kernel_shape": [2, 2], "strides": [2, 2]}
INPUT_SCALE, INPUT_ZERO = 1 / 64, 128  # a pixel p stands for (p - 128) / 64


class Graph:
    """Nodes and constants while a model is made."""

    def __init__(self):
        self.nodes, self.constants = [], []

    def constant(self, name, value, dtype=np.float32):
        self.constants.append(numpy_helper.from_array(np.asarray(value, dtype), name))
        return name

    def node(self, kind, inputs, output, **attributes):
        self.nodes.append(helper.make_node(kind, inputs, [output], **attributes))
        return output

    def save(self, path, classes):
        graph = helper.make_graph(
            self.nodes, "photographs",
            [helper.make_tensor_value_info("photograph", TensorProto.UINT8, ["N", 3, 48, 48])],
            [helper.make_tensor_value_info("probabilities", TensorProto.FLOAT,
                                           ["N", len(classes)])],
            self.constants)
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
        model.ir_version = 7
        helper.set_model_props(model, {"classes": ",".join(classes)})
        onnx.checker.check_model(model)
        onnx.save(model, str(path))


def float_model(weights):
    """The network as it was trained."""
    graph = Graph()
    graph.constant("half_range", [INPUT_ZERO])
    graph.constant("scale", [INPUT_SCALE])
    x = graph.node("Cast", ["photograph"], "pixels", to=TensorProto.FLOAT)
    x = graph.node("Sub", [x, "half_range"], "centred")
    x = graph.node("Mul", [x, "scale"], "scaled")
    for layer in "123":
        names = [graph.constant(kind + layer, weights[kind + layer]) for kind in "wb"]
        x = graph.node("Conv", [x, *names], f"conv{layer}", **CONVOLUTION)
        x = graph.node("Relu", [x], f"relu{layer}")
        x = graph.node("MaxPool", [x], f"pool{layer}", **POOL)
    x = graph.node("GlobalAveragePool", [x], "averages")
    x = graph.node("Flatten", [x], "features", axis=1)
    names = [graph.constant("wd", weights["wd"]), graph.constant("bd", weights["bd"])]
    x = graph.node("Gemm", [x, *names], "logits")
    graph.node("Softmax", [x], "probabilities", axis=1)
    return graph


def quantised_model(weights, ranges):
    """The same in 8 bits. `ranges` has the greatest value of each convolution's output and of the
    averages; ReLU makes them all positive, so that 0 stands for 0."""
    graph = Graph()
    x, scale = "photograph", (graph.constant("scale0", INPUT_SCALE),
                              graph.constant("zero0", INPUT_ZERO, np.uint8))
    for layer, highest in zip("123", ranges):
        made = _level(graph, layer, highest)
        weight = _weight(graph, "w" + layer, weights["w" + layer], axes=(1, 2, 3))
        # Biases are added to sums of products, whose scale is the product of both scales.
        unit = _value(graph, scale[0]) * _value(graph, weight[1])
        bias = graph.constant("b" + layer, np.round(weights["b" + layer] / unit), np.int32)
        x = graph.node("QLinearConv", [x, *scale, *weight, *made, bias], f"conv{layer}",
                       **CONVOLUTION)  # the range begins at 0, so this is the ReLU too
        x, scale = graph.node("MaxPool", [x], f"pool{layer}", **POOL), made
    x = graph.node("DequantizeLinear", [x, *scale], "activations")
    x = graph.node("GlobalAveragePool", [x], "averages")
    x = graph.node("Flatten", [x], "features", axis=1)
    made = _level(graph, "d", ranges[3])
    x = graph.node("QuantizeLinear", [x, *made], "features8")
    x = graph.node("DequantizeLinear", [x, *made], "features8_values")
    dense = graph.node("DequantizeLinear", [*_weight(graph, "wd", weights["wd"], axes=(0, 1))],
                       "dense")
    x = graph.node("Gemm", [x, dense, graph.constant("bd", weights["bd"])], "logits")
    graph.node("Softmax", [x], "probabilities", axis=1)
    return graph


def _level(graph, name, highest):
    """Scale and zero of a layer whose values lie between 0 and `highest`."""
    return (graph.constant("scale" + name, highest / 255),
            graph.constant("zero" + name, 0, np.uint8))


def _weight(graph, name, value, axes):
    """Weights as signed bytes, with a scale for every output channel or one for all."""
    scale = np.abs(value).max(axis=axes) / 127
    shape = (-1,) + (1,) * (value.ndim - 1) if scale.ndim else ()
    return (graph.constant(name, np.round(value / scale.reshape(shape)), np.int8),
            graph.constant(name + "_scale", scale),
            graph.constant(name + "_zero", np.zeros_like(scale), np.int8))


def _value(graph, name):
    return next(numpy_helper.to_array(item) for item in graph.constants if item.name == name)


def save_models(folder, weights, ranges, classes):
    """Writes float.onnx, int8.onnx and clipped.onnx, in whose second layer a quarter of the range
    is left, as when pictures that are too dark tell the ranges."""
    float_model(weights).save(folder / "float.onnx", classes)
    quantised_model(weights, ranges).save(folder / "int8.onnx", classes)
    clipped = [ranges[0], ranges[1] / 4, *ranges[2:]]
    quantised_model(weights, clipped).save(folder / "clipped.onnx", classes)
