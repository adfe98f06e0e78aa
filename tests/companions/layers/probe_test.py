"""quilmrun-layers probe: which results become outputs, under which names, in which files."""

import unittest

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from onnx.external_data_helper import convert_model_to_external_data
from probed import ProbeTest

NODE = helper.make_node


def small(nodes, constants=(), outputs=("y",), shape=("N", 2, 4, 4)):
    """A model with the input x and weights of ones."""
    values = [numpy_helper.from_array(np.ones(dims, np.float32), name)
              for name, dims in dict(constants).items()]
    graph = helper.make_graph(
        nodes, "g", [helper.make_tensor_value_info("x", TensorProto.FLOAT, shape)],
        [helper.make_tensor_value_info(name, TensorProto.FLOAT, shape) for name in outputs], values)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 7
    return model


def network():
    """Layers with activations, two of them with a result that others read, and a shape's."""
    return small([
        NODE("Conv", ["x", "w"], ["c"], name="first"), NODE("Relu", ["c"], ["r"]),
        NODE("Sigmoid", ["r"], ["s"]), NODE("Mul", ["r", "s"], ["silu"]),
        NODE("Conv", ["silu", "w"], ["c2"], name="second"), NODE("Tanh", ["c2"], ["t"]),
        NODE("Add", ["c2", "t"], ["sum"]), NODE("Shape", ["sum"], ["shape"]),
        NODE("Reshape", ["sum", "shape"], ["same"]), NODE("Identity", ["w"], ["w2"]),
        NODE("Add", ["same", "r"], ["y"])], {"w": [2, 2, 1, 1]})


class Which(ProbeTest):
    def test_layers(self):
        default = {"r": "Relu", "s": "", "silu": "", "c2": "", "t": "", "sum": "", "y": ""}
        for expected, options in [
                (default, ()),
                (["r", "c2"], ("--only", "Conv")),
                (["t", "same"], ("--tensors", "same,t")),
                (["c2", "t"], ("--from", "c2", "--to", "t")),
                (["c", "r", "s", "silu", "c2"], ("--all", "--to", "c2")),
                (["sum", "shape", "same", "y"], ("--all", "--from", "sum"))]:
            with self.subTest(options):
                found = self.probe(network(), *options)
                self.assertEqual([layer["name"] for layer in found["layers"]], [*expected])
                if expected is default:
                    self.assertEqual({layer["name"]: layer["activation"]
                                      for layer in found["layers"]}, default)
        self.refused("computes a tensor z", "probe", "m.onnx", "-o", "p", "--tensors", "z")
        self.refused("no such layers", "probe", "m.onnx", "-o", "p", "--only", "Gemm")

    def test_description(self):
        found = self.probe(network())
        first, *_, last = found["layers"]
        self.assertEqual(first, {
            "name": "r", "output": "r", "node": "first", "operator": "Conv", "activation": "Relu",
            "place": 1, "sources": ["x"], "type": "float", "shape": [1, 2, 4, 4],
            "file": "probe.onnx"})
        self.assertEqual((sorted(last["sources"]), last["place"]), (["r", "sum"], 10))
        self.assertIn("7 layers, 192 values, about 5 KB an inference\nwithout 1 whose", self.said)
        model = onnx.load(str(self.dir / "p/probe.onnx"))
        onnx.checker.check_model(model)
        self.assertEqual([one.name for one in model.graph.output], found["files"]["probe.onnx"])
        self.assertEqual(found["files"]["probe.onnx"], ["y", "r", "s", "silu", "c2", "t", "sum"])
        self.assertEqual([*model.graph.node], [*network().graph.node])

    def test_several_files_run(self):
        found = self.probe(network(), "--at-most", "4")
        self.assertEqual(found["files"], {"probe-1.onnx": ["y", "r", "s", "silu"],
                                          "probe-2.onnx": ["y", "c2", "t", "sum"]})
        self.inputs((2, 4, 4))
        for part in (1, 2):
            self.run_probe(f"p/probe-{part}.onnx", f"pc/probe-{part}")
            self.run_probe(f"p/probe-{part}.onnx", f"b/probe-{part}")
        result = self.find("--own", status=0)
        self.assertEqual([layer["own_snr_db"] for layer in result["layers"]], ["inf"] * 7)

    def test_names_that_collide(self):
        long = "n" * 130
        found = self.probe(small([
            NODE("Add", ["x", "x"], ["a.b"]), NODE("Mul", ["a.b", "x"], ["a/b"]),
            NODE("Add", ["a/b", "x"], ["y_"]), NODE("Mul", ["y_", "x"], [long]),
            NODE("Add", [long, "x"], ["y."])], outputs=["y."]))
        self.assertEqual(found["renamed"], {"a/b": "a/b_2", "y_": "y__2", long: "n" * 117 + "_2"})
        self.inputs((2, 4, 4))
        for folder in ("pc", "b"):
            self.run_probe("p/probe.onnx", folder)
        self.assertEqual([layer["own_snr_db"] for layer in self.find("--own", status=0)["layers"]],
                         ["inf"] * 5)

    def test_weights_elsewhere_and_subgraphs(self):
        branch = helper.make_graph([NODE("Exp", ["a"], ["inner"])], "b", [],
                                   [helper.make_tensor_value_info("inner", TensorProto.FLOAT, None)])
        model = small([
            NODE("Conv", ["x", "w"], ["a"]), NODE("ReduceMax", ["a"], ["top"], keepdims=0),
            NODE("Cast", ["top"], ["flag"], to=TensorProto.BOOL),
            NODE("If", ["flag"], ["e"], name="either", then_branch=branch, else_branch=branch),
            NODE("Add", ["e", "a"], ["y"])], {"w": [2, 2, 1, 1]})
        convert_model_to_external_data(model, location="weights", size_threshold=0)
        found = self.probe(model)
        self.assertIn("what If either computes inside is passed over", self.said)
        self.assertEqual([layer["sources"] for layer in found["layers"]], [["x"], ["a"], ["a", "top"]])
        (self.dir / "weights").unlink()
        self.inputs((2, 4, 4))
        for folder in ("pc", "b"):
            self.run_probe("p/probe.onnx", folder)
        self.find("--own", status=0)
        self.refused("weights: No such file", "probe", "m.onnx", "-o", "q")

    def test_sizes_and_open_shapes(self):
        for text, shape, options in [
                ("37.6 million values, about 866 MB an", ["N", 2, 3072, 6127], ()),
                ("1.2 GB an inference\nfewer outputs", ["N", 2, 4096, 6127], ()),
                ("0 values, about 0 KB an inference\nwithout 1 whose", [1, 2, "H", 4], ()),
                ("1 layer, 40 values", [1, 2, "H", 4], ("-j", "open.json"))]:
            self.write("open.json", '{"input_shapes": {"x": [1, 2, 5, 4]}}')
            with self.subTest(text):
                self.probe(small([NODE("Relu", ["x"], ["y"])], shape=shape), *options)
                self.assertIn(text, self.said)

    def test_files_of_others(self):
        self.probe(network())
        self.probe(network(), "--at-most", "4")  # over its own
        self.write("p/probe.onnx", (self.dir / "m.onnx").read_bytes())
        self.refused("probe.onnx exists", "probe", "m.onnx", "-o", "p")
        self.write("q/layers.json", "mine")
        self.refused("layers.json exists", "probe", "m.onnx", "-o", "q")


if __name__ == "__main__":
    unittest.main()
