"""Networks made at random, and the same with a fault or with noise in what is made of them."""

import numpy as np
from onnx import TensorProto, helper, numpy_helper

SPOILS = ("scale", "bias", "clip", "bits")
_ACTIVATIONS = ("Relu", "LeakyRelu", "Sigmoid", "")


class Network:
    """A network of about `layers` layers: its nodes, and for each layer what may be spoiled."""

    def __init__(self, seed, layers, size=12):
        self.random = np.random.default_rng(seed)
        self.nodes, self.weights, self.spoilable = [], {}, []
        self._count = 0
        self.size = self._size = size
        self._channels = 3
        x = "x"
        while self._count < layers - 1:
            x = self._block(x)
        x = self._node("GlobalAveragePool", [x])
        x = self._node("Flatten", [x])
        x = self._dense(x, self._channels, 10)
        self.output = self._node("Softmax", [x], axis=1)

    def _name(self, kind):
        self._count += 1
        return f"/{kind.lower()}.{self._count}/out"

    def _node(self, kind, inputs, **attributes):
        name = self._name(kind)
        self.nodes.append(helper.make_node(kind, inputs, [name], name=name[:-4], **attributes))
        return name

    def _weight(self, name, shape, deviation, mean=0.0):
        self.weights[name] = np.float32(self.random.normal(mean, deviation, shape))
        return name

    def _layer(self, kind, x, weight_shape, fan_in, **attributes):
        name = f"w{self._count + 1}"
        inputs = [x, self._weight(name, weight_shape, 1.4 / np.sqrt(fan_in)),
                  self._weight(f"b{self._count + 1}", [self.wide], 0.3)]
        made = self._node(kind, inputs, **attributes)
        return made, inputs

    def _conv(self, x, wide, kernel=3, group=1, activation=None):
        self.wide = wide
        fan_in = self._channels // group * kernel * kernel
        made, inputs = self._layer("Conv", x, [wide, self._channels // group, kernel, kernel],
                                   fan_in, kernel_shape=[kernel] * 2, pads=[kernel // 2] * 4,
                                   group=group)
        self._channels = wide
        return self._activate(made, inputs, activation)

    def _dense(self, x, narrow, wide):
        self.wide = wide
        made, inputs = self._layer("Gemm", x, [wide, narrow], narrow, transB=1)
        return self._activate(made, inputs, "")

    def _activate(self, made, inputs, kind):
        kind = self.random.choice(_ACTIVATIONS) if kind is None else kind
        last = self._node(kind, [made]) if kind else made
        self.spoilable.append((made, last, inputs))
        return last

    def _block(self, x):
        kind = self.random.choice(["conv", "conv", "residual", "concat", "depthwise", "norm",
                                   "pool"])
        wide = int(self.random.choice([8, 16, 32]))
        if kind == "residual":
            inner = self._conv(self._conv(x, self._channels), self._channels, activation="")
            return self._node("Relu", [self._node("Add", [x, inner])])
        if kind == "concat":
            before = self._channels
            one = self._conv(x, wide)
            self._channels = before
            other = self._conv(x, 8, kernel=1)
            self._channels = wide + 8
            return self._node("Concat", [one, other], axis=1)
        if kind == "depthwise":
            return self._conv(self._conv(x, self._channels, group=self._channels), wide, kernel=1)
        if kind == "norm":
            made = self._conv(x, wide, activation="")
            names = [self._weight(f"{what}{self._count}", [wide], deviation, mean)
                     for what, deviation, mean in (("gamma", .2, 1), ("beta", .3, 0), ("mean", .3, 0))]
            self.weights[f"var{self._count}"] = np.float32(self.random.uniform(.5, 2, wide))
            return self._node("Relu", [self._node("BatchNormalization",
                                                  [made, *names, f"var{self._count}"])])
        if kind == "pool" and self._size > 4:
            self._size //= 2
            return self._node(self.random.choice(["MaxPool", "AveragePool"]), [x],
                              kernel_shape=[2, 2], strides=[2, 2])
        return self._conv(x, wide)

    def model(self):
        """The network as an ONNX model."""
        graph = helper.make_graph(
            self.nodes, "network",
            [helper.make_tensor_value_info("x", TensorProto.FLOAT, ["N", 3, self.size, self.size])],
            [helper.make_tensor_value_info(self.output, TensorProto.FLOAT, ["N", 10])],
            [numpy_helper.from_array(value, name) for name, value in self.weights.items()])
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
        model.ir_version = 7
        return model

    def spoil(self, kind):
        """(result, activated result, {weights: spoiled}) of a layer picked at random; to "clip" is
        left to clip()."""
        layers = [layer for layer in self.spoilable if kind != "clip" or layer[0] != layer[1]]
        made, last, (_, weight, bias) = layers[self.random.integers(len(layers))]
        value = self.weights[weight].copy()
        if kind == "scale":
            value[self.random.integers(len(value))] *= self.random.choice([.25, .5, 2, 3])
            return made, last, {weight: value}
        if kind == "bits":
            return made, last, {weight: rounded(value, 3)}
        return made, last, {bias: self.weights[bias] * 0} if kind == "bias" else {}

    def accepted(self, made, last):
        """What a search may name for a spoiled layer: its result, or that of the activation or
        join that directly follows."""
        joins = [node.output[0] for node in self.nodes
                 if node.op_type in ("Add", "Concat") and last in node.input]
        return {made, last, *joins, *(node.output[0] for node in self.nodes
                                      if node.op_type == "Relu" and node.input[0] in joins)}


def rounded(value, bits):
    """Weights with so many bits."""
    step = np.abs(value).max() / (2 ** (bits - 1) - 1)
    return np.float32(np.round(value / step) * step)


def with_weights(model, weights):
    """The model with other values for some weights."""
    for tensor in model.graph.initializer:
        if tensor.name in weights:
            tensor.CopyFrom(numpy_helper.from_array(weights[tensor.name], tensor.name))
    return model


def clip(model, tensor, high):
    """The model with a tensor that never exceeds `high`."""
    at, node = next((at, node) for at, node in enumerate(model.graph.node)
                    if tensor in node.output)
    node.output[0] = tensor + "/all"
    model.graph.initializer.append(numpy_helper.from_array(np.float32(high), "high"))
    model.graph.node.insert(at + 1, helper.make_node("Clip", [tensor + "/all", "", "high"], [tensor]))
    return model
