"""Graphs as common exporters write them, run through the tool and compared with NumPy."""

import unittest

import numpy as np
from onnx import helper, numpy_helper

from models import HostRuntimeTest, tensor


class Graph:
    """Collects nodes and constants; every call of an operator returns the names it produced."""

    def __init__(self):
        self.nodes, self.constants = [], []

    def constant(self, value):
        name = f"c{len(self.constants)}"
        self.constants.append(numpy_helper.from_array(np.asarray(value), name))
        return name

    def __call__(self, operator, *inputs, outputs=1, **attributes):
        names = [f"{operator.lower()}{len(self.nodes)}_{i}" for i in range(outputs)]
        inputs = [name if isinstance(name, str) else self.constant(name) for name in inputs]
        self.nodes.append(helper.make_node(operator, inputs, names, **attributes))
        return names[0] if outputs == 1 else names

    def encode(self, x, result, shape, opset):
        self.nodes.append(helper.make_node("Identity", [result], ["y"]))
        graph = helper.make_graph(self.nodes, "g", [tensor("x", x.shape)], [tensor("y", shape)],
                                  self.constants)
        proto = helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)])
        proto.ir_version = 7
        return proto.SerializeToString()


def sigmoid(x):
    return 1 / (1 + np.exp(-x))


def softmax(x):
    e = np.exp(x - x.max(-1, keepdims=True))
    return e / e.sum(-1, keepdims=True)


class Exports(HostRuntimeTest):
    def setUp(self):
        super().setUp()
        self.random = np.random.RandomState(3)

    def floats(self, *shape):
        return self.random.randn(*shape).astype(np.float32)

    def check(self, graph, x, result, expected, opset=13):
        self.write("x", x.tobytes())
        status, _, err = self.run_model(graph.encode(x, result, expected.shape, opset), "x")
        self.assertEqual((status, err), (0, ""))
        outputs = self.outputs()
        actual = np.frombuffer(outputs["0/y.0.S.bin"], "<f4").reshape(expected.shape)
        np.testing.assert_allclose(actual, expected, rtol=1e-4, atol=1e-5)

    def test_convolutional_classifier(self):
        """Clip with constant bounds, a flattening computed from the shape, Gemm as trained."""
        x, kernel, dense, bias = (self.floats(*s) for s in ((1, 3, 4, 4), (8, 3, 1, 1), (8, 5), (5,)))
        g = Graph()
        features = g("Clip", g("Conv", "x", kernel, kernel_shape=[1, 1]), np.float32(0),
                     np.float32(6))
        pooled = g("GlobalAveragePool", features)
        batch = g("Unsqueeze", g("Gather", g("Shape", pooled), np.int64(0)), np.array([0]))
        flat = g("Reshape", pooled, g("Concat", batch, np.array([-1]), axis=0))
        y = g("LogSoftmax", g("Gemm", flat, dense, bias))
        values = np.clip(np.einsum("oi,bihw->bohw", kernel[:, :, 0, 0], x), 0, 6).mean((2, 3))
        self.check(g, x, y, np.log(softmax(values @ dense + bias)))

    def test_attention_block(self):
        """Softmax over its default axis of four dimensions, layer normalization in two forms."""
        x, scale, bias = self.floats(1, 5, 8), self.floats(8), self.floats(8)
        weights = [self.floats(8, 8) for _ in range(3)]

        def heads(values):
            return values.reshape(1, 5, 2, 4).transpose(0, 2, 1, 3)

        q, k, v = (heads(x @ w) for w in weights)
        mixed = (softmax(q @ k.transpose(0, 1, 3, 2) / 2) @ v).transpose(0, 2, 1, 3).reshape(1, 5, 8)
        centred = x + mixed - (x + mixed).mean(-1, keepdims=True)
        expected = centred / np.sqrt((centred**2).mean(-1, keepdims=True) + 1e-5) * scale + bias
        for opset in (13, 17):
            g = Graph()
            split = [g("Transpose", g("Reshape", g("MatMul", "x", w), np.array([1, 5, 2, -1])),
                       perm=p) for w, p in zip(weights, ([0, 2, 1, 3], [0, 2, 3, 1], [0, 2, 1, 3]))]
            scores = g("Softmax", g("Div", g("MatMul", *split[:2]), np.float32(2)))
            joined = g("Reshape", g("Transpose", g("MatMul", scores, split[2]), perm=[0, 2, 1, 3]),
                       np.array([0, 0, 8]))
            total = g("Add", "x", joined)
            if opset == 17:
                y = g("LayerNormalization", total, scale, bias, axis=-1, epsilon=1e-5)
            else:
                centre = g("Sub", total, g("ReduceMean", total, axes=[-1]))
                variance = g("ReduceMean", g("Pow", centre, np.float32(2)), axes=[-1])
                deviation = g("Sqrt", g("Add", variance, np.float32(1e-5)))
                y = g("Add", g("Mul", g("Div", centre, deviation), scale), bias)
            self.check(g, x, y, expected, opset)

    def test_lstm_with_initial_states_from_the_shape(self):
        """Constant zero states, three outputs of which one is used, axes of Squeeze as an input."""
        steps, inputs, hidden = 6, 3, 4
        x = self.floats(steps, 1, inputs)
        w, r = self.floats(1, 4 * hidden, inputs), self.floats(1, 4 * hidden, hidden)
        b = self.floats(1, 8 * hidden)
        h, c, expected = np.zeros(hidden), np.zeros(hidden), []
        for frame in x[:, 0]:
            i, o, f, n = np.split(w[0] @ frame + r[0] @ h + b[0].reshape(2, -1).sum(0), 4)
            c = sigmoid(f) * c + sigmoid(i) * np.tanh(n)
            h = sigmoid(o) * np.tanh(c)
            expected.append(h)
        g = Graph()
        batch = g("Unsqueeze", g("Gather", g("Shape", "x"), np.int64(1)), np.array([0]))
        zeros = g("ConstantOfShape", g("Concat", np.array([1]), batch, np.array([hidden]), axis=0))
        y, _, _ = g("LSTM", "x", w, r, b, "", zeros, zeros, outputs=3, hidden_size=hidden)
        self.check(g, x, g("Squeeze", y, np.array([1])), np.array(expected)[:, None])

    def test_reductions_and_broadcasts(self):
        """Axes of ReduceSum as an input, operands of fewer dimensions, Max of a computed one."""
        x = self.floats(2, 3, 4)
        g = Graph()
        total = g("ReduceSum", "x", np.array([0]), keepdims=0)
        y = g("Max", g("Mul", "x", total), g("Mean", "x", "x"))
        self.check(g, x, y, np.maximum(x * x.sum(0), x))

    def test_refused_operators_are_named(self):
        g = Graph()
        proto = g.encode(self.floats(1, 4), g("CumSum", "x", np.array(1)), (1, 4), 13)
        status, _, err = self.run_model(proto, "x")
        self.assertEqual((status, err), (1, 'host runtime: the model cannot be loaded: node '
                                            '"cumsum0_0" (CumSum): operator is not on the table\n'))


if __name__ == "__main__":
    unittest.main()
