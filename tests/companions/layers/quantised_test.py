"""quilmrun-layers probe --quantised: forms of quantised models, and what pairs with what."""

import unittest

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from probed import ProbeTest

NODE = helper.make_node
RANDOM = np.random.default_rng(1)
W1, B1 = (np.float32(RANDOM.normal(0, .3, shape)) for shape in ((8, 3, 3, 3), 8))
W2 = np.float32(RANDOM.normal(0, .2, (10, 8)))
S1, S2 = np.float32(np.abs(W1).max((1, 2, 3)) / 127), np.float32(np.abs(W2).max() / 127)
CONSTANTS = {
    "w1": W1, "b1": B1, "w2": W2, "xs": 6 / 255, "xz": np.uint8(128), "ws": S1,
    "wz": np.zeros(8, np.int8), "wq": np.int8(np.round(W1 / S1[:, None, None, None])),
    "bq": np.int32(np.round(B1 / (6 / 255 * S1))), "rs": 4 / 255, "rz": np.uint8(0),
    "w2q": np.int8(np.round(W2 / S2)), "w2s": S2, "w2z": np.int8(0)}


def model(nodes, output="y"):
    used = {name for node in nodes for name in node.input}
    graph = helper.make_graph(
        nodes, "g", [helper.make_tensor_value_info("x", TensorProto.FLOAT, ["N", 3, 8, 8])],
        [helper.make_tensor_value_info(output, TensorProto.FLOAT, ["N", 10])],
        [numpy_helper.from_array(np.float32(value) if isinstance(value, float) else
                                 np.asarray(value), name)
         for name, value in CONSTANTS.items() if name in used])
    result = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    result.ir_version = 7
    return result


def tail(names):
    """The layers behind the convolution."""
    before, average, flat, weights, last = names
    return [NODE("GlobalAveragePool", [before], [average]), NODE("Flatten", [average], [flat]),
            NODE("DequantizeLinear", ["w2q", "w2s", "w2z"], [weights]),
            NODE("Gemm", [flat, weights], [last], transB=1)]


FLOAT = [NODE("Conv", ["x", "w1", "b1"], ["c"], pads=[1] * 4), NODE("Relu", ["c"], ["r"]),
         NODE("GlobalAveragePool", ["r"], ["g"]), NODE("Flatten", ["g"], ["f"]),
         NODE("Gemm", ["f", "w2"], ["y"], transB=1)]
QDQ = [NODE("QuantizeLinear", ["x", "xs", "xz"], ["x_Q"]),
       NODE("DequantizeLinear", ["x_Q", "xs", "xz"], ["x_DQ"]),
       NODE("DequantizeLinear", ["wq", "ws", "wz"], ["w1_DQ"], axis=0),
       NODE("Conv", ["x_DQ", "w1_DQ", "b1"], ["c"], pads=[1] * 4), NODE("Relu", ["c"], ["r"]),
       NODE("QuantizeLinear", ["r", "rs", "rz"], ["r_Q"]),
       NODE("DequantizeLinear", ["r_Q", "rs", "rz"], ["r_DQ"])]


def integers(first, made, number):
    """The convolution in integers; its range makes the activation too."""
    return [NODE("QuantizeLinear", ["x", "xs", "xz"], [first]),
            NODE("QLinearConv", [first, "xs", "xz", "wq", "ws", "wz", "rs", "rz", "bq"], [made],
                 pads=[1] * 4), NODE("MaxPool", [made], ["pool"], kernel_shape=[1, 1]),
            NODE("DequantizeLinear", ["pool", "rs", "rz"], [number])]


class Quantised(ProbeTest):
    def test_pairs(self):
        for tensors, found_by, nodes, output in [
                ("rgy", ["name"] * 3, QDQ + tail(["r_DQ", "g", "f", "w", "y"]), "y"),
                ("cgy", ["suffix", "name", "name"],
                 integers("x8", "c_quantized", "v") + tail(["v", "g", "f", "w", "y"]), "y"),
                ("cy", ["order"] * 2, integers("1", "2", "3") + tail("34567"), "7")]:
            with self.subTest(found_by):
                onnx.save(model(nodes, output), str(self.dir / "int8.onnx"))
                found = self.probe(model(FLOAT), "--quantised", "int8.onnx")
                made = found["quantised"]
                self.assertEqual([pair["found_by"] for pair in made["pairs"]], found_by)
                self.assertEqual([pair["name"] for pair in made["pairs"]],
                                 [name.replace("c", "r") for name in tensors])
                self.assertEqual(made["unpaired"], [] if "g" in tensors else ["g"])
                names = [one.name for one in
                         onnx.load(str(self.dir / "p/quantised.onnx")).graph.output]
                self.assertEqual(names, [output] + [name for name in "rg" if name not in
                                                    made["unpaired"]])
                self.inputs((3, 8, 8))
                number = len(found_by) * 10 + len(names)
                self.run_probe("p/probe.onnx", f"pc{number}{output}{found_by[0]}")
                self.run_probe("p/quantised.onnx", f"b{number}{output}{found_by[0]}")
                result = self.find("--own", status=0, board=f"b{number}{output}{found_by[0]}",
                                   pc=f"pc{number}{output}{found_by[0]}")
                snr = {layer["name"]: layer["snr_db"] for layer in result["layers"]}
                self.assertTrue(20 < snr["r"] < 40 and 25 < snr["y"] < 50, snr)


if __name__ == "__main__":
    unittest.main()
