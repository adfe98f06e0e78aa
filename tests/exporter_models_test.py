"""Models as exporters write them, with symbolic shapes, run unmodified and compared with NumPy."""

import os
import re
import shutil
import unittest

import numpy as np
from onnx import TensorProto, helper, numpy_helper

from models import HostRuntimeTest, copies, floats, relu, tensor
from tool import BUILD, QUILMRUN

FLOAT, INT64, BOOL, DOUBLE = (TensorProto.FLOAT, TensorProto.INT64, TensorProto.BOOL,
                              TensorProto.DOUBLE)
RANDOM = np.random.RandomState(3)
KERNEL = RANDOM.randn(2, 3, 1, 1).astype("f4")
TABLE = RANDOM.randn(10, 4).astype("f4")
IMAGE = RANDOM.randn(1, 3, 4, 6).astype("f4")


def node(operator, inputs, outputs, **attributes):
    return helper.make_node(operator, inputs.split(), outputs.split(), **attributes)


def model(nodes, inputs, outputs, opset=13, **constants):
    """Of inputs and outputs {name: (type, shape)}; an output's shape may be None."""
    values = [[tensor(name, shape, kind) for name, (kind, shape) in group.items()]
              for group in (inputs, outputs)]
    graph = helper.make_graph(nodes, "g", *values, [
        numpy_helper.from_array(np.asarray(value), name) for name, value in constants.items()])
    proto = helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)])
    proto.ir_version = 8
    return proto.SerializeToString()


def convolution(**attributes):
    return model([node("Conv", "x k", "y", **attributes)], {"x": (FLOAT, ["N", 3, "H", "W"])},
                 {"y": (FLOAT, ["N", 2, "H", "W"])}, k=KERNEL)


def flattened():
    return model([node("Shape", "x", "s"), node("Cast", "s", "f", to=FLOAT),
                  node("Cast", "f", "i", to=INT64),
                  node("Slice", "i zero one", "b"), node("Concat", "b rest", "t", axis=0),
                  node("Reshape", "x t", "y")],
                 {"x": (FLOAT, ["N", 3, "H", "W"])}, {"y": (FLOAT, None)},
                 zero=np.array([0]), one=np.array([1]), rest=np.array([-1]))


def upsampled():
    return model([node("Resize", "x roi scales", "r", mode="nearest",
                       coordinate_transformation_mode="asymmetric"),
                  node("ConvTranspose", "r k", "y", strides=[2, 2])],
                 {"x": (FLOAT, ["N", 3, "H", "W"])}, {"y": (FLOAT, None)},
                 roi=np.zeros(0, "f4"), scales=np.array([1, 1, 2, 2], "f4"),
                 k=np.ones((3, 1, 2, 2), "f4"))


def quantized():
    weights = np.arange(-3, 3).reshape(2, 3, 1, 1).astype("i1")
    return model([node("QuantizeLinear", "x a za", "q"),
                  node("QLinearConv", "q a za w a zw b za", "c"),
                  node("DequantizeLinear", "c b za", "y")], {"x": (FLOAT, [1, 3, 4, 6])},
                 {"y": (FLOAT, [1, 2, 4, 6])}, a=np.float32(0.5), b=np.float32(0.25),
                 za=np.uint8(128), zw=np.int8(0), w=weights), weights


def doubled_by_a_loop():
    body = helper.make_graph([node("Add", "v v", "w"), node("Identity", "c", "d")], "body",
                             [tensor("i", [], INT64), tensor("c", [], BOOL),
                              tensor("v", None)], [tensor("d", [], BOOL), tensor("w", None)])
    return model([node("Loop", "three true x", "y", body=body)], {"x": (FLOAT, ["N", 4])},
                 {"y": (FLOAT, None)}, three=np.int64(3), true=np.bool_(True))


def branching():
    """Which branch runs depends on data; with numbers for names the other one is malformed."""
    def branch(name, *nodes):
        return helper.make_graph(nodes, name, [], [tensor(name, None)])
    squeezed = branch("e", node("Squeeze", "x", "s"), node("ReduceSum", "s one", "r", keepdims=0),
                      node("Concat", "r r", "e", axis=1))
    return model([node("Less", "n two", "b"),
                  node("If", "b", "y", else_branch=branch("t", node("Neg", "x", "t")),
                       then_branch=squeezed)],
                 {"x": (FLOAT, ["H", "W"]), "n": (INT64, [])}, {"y": (FLOAT, None)},
                 one=np.array([1]), two=np.int64(2))


def gathered(first):
    """A scalar, by an index from `first` to `first` + 9: neither 0 nor 1 will do."""
    return model([node("Sub", "i f", "d"), node("Gather", "t d", "g"),
                  node("ReduceMax", "g", "y", keepdims=0)],
                 {"i": (INT64, [1])}, {"y": (FLOAT, [])}, f=np.int64(first), t=TABLE[:, 0])


def reshaped():
    """Runs with the index 0 only, which shows the output's shape."""
    return model([node("Gather", "s i", "t"), node("Reshape", "x t", "y")],
                 {"x": (FLOAT, [4]), "i": (INT64, [])}, {"y": (FLOAT, None)}, s=np.array([[2, 2]]))


def selected():
    """The engine's Unique ends the process when NonZero leaves it nothing."""
    return model([node("NonZero", "x", "n"), node("Unique", "n", "y", axis=0)],
                 {"x": (FLOAT, [4])}, {"y": (INT64, None)})


def message(field, content):
    """A part of an encoded file that holds others, or text."""
    size, length = len(content), b""
    while size > 127:
        size, length = size >> 7, length + bytes([size & 127 | 128])
    return bytes([field << 3 | 2]) + length + bytes([size]) + content


def nested():
    """An input that is a sequence of sequences of sequences and so on."""
    kind = b""
    for _ in range(2183):
        kind = message(4, message(1, kind))
    return message(7, message(11, message(1, b"x") + message(2, kind)) +
                   message(1, message(4, b"Neg")))


def two_payloads():
    leaky = node("LeakyRelu", "x", "y", alpha=0.5)
    leaky.attribute[0].i = 3
    return model([leaky], {"x": (FLOAT, [4])}, {"y": (FLOAT, [4])})


class ExporterModels(HostRuntimeTest):
    def run_arrays(self, model_bytes, arrays, *options, **settings):
        for index, array in enumerate(arrays):
            self.write(f"{index}", array.tobytes())
        names = "".join(f"{index}\n" for index in range(len(arrays)))
        return self.run_model(model_bytes, names, *options, settings=settings)

    def output(self, name="y", dtype="<f4"):
        return np.frombuffer(self.outputs()[f"0/{name}.0.S.bin"], "<f4").view(dtype)

    def test_run_unmodified(self):
        shapes = {"input_shapes": {"x": [1, 3, 4, 6]}}
        convolved = np.einsum("oc,nchw->nohw", KERNEL[:, :, 0, 0], IMAGE)
        large = np.kron(IMAGE, np.ones((2, 2))).sum(1)
        quantized_model, weights = quantized()
        steps = np.clip(np.rint(IMAGE / 0.5), -128, 127)
        products = np.einsum("oc,nchw->nohw", weights[:, :, 0, 0] * 0.5, steps * 0.5)
        tokens = np.array([[7, 0, 9, 3]], "<i4")
        line = np.arange(4, dtype="f4")
        rows = [
            ("Conv without kernel_shape", convolution(), [IMAGE], shapes, convolved),
            ("shape chain", flattened(), [IMAGE], shapes, IMAGE),
            ("Resize and ConvTranspose", upsampled(), [IMAGE], shapes,
             np.kron(large, np.ones((2, 2)))),
            ("tokens", model([node("Gather", "t x", "y")], {"x": (INT64, ["N", "L"])},
                             {"y": (FLOAT, None)}, t=TABLE), [tokens],
             {"input_shapes": {"x": [1, 4]}}, TABLE[tokens]),
            ("quantized", quantized_model, [IMAGE], {}, np.rint(products / 0.25) * 0.25),
            ("opset 20", model([node("Gelu", "x", "y")], {"x": (FLOAT, ["N", 4])},
                               {"y": (FLOAT, ["N", 4])}, 20), [line], {},
             [0, 0.8413447, 1.9544997, 2.9959502]),
            ("Loop", doubled_by_a_loop(), [line], {}, 8 * line),
            ("double", model([node("Neg", "x", "y")], {"x": (DOUBLE, [4])}, {"y": (DOUBLE, [4])}),
             [line], {}, -line),
            ("truth values", model([node("Not", "x", "y")], {"x": (BOOL, [3])}, {"y": (BOOL, [3])}),
             [np.array([0, 1, 200], "u1")], {}, [1, 0, 0]),
            ("branches", branching(), [line, np.array([2], "<i4")],
             {"input_shapes": {"x": [1, 4]}, "output_shapes": {"y": [1, 4]}}, -line),
            ("scalar", model([node("ReduceSum", "x", "y", keepdims=0)], {"x": (FLOAT, ["N", 4])},
                             {"y": (FLOAT, [])}), [line], {}, [6]),
            ("-1 for a dimension", relu([1, -1]), [line], {"input_shapes": {"x": [1, 4]}}, line),
            ("known scalar", gathered(20), [np.array([21], "<i4")], {}, TABLE[1, 0]),
            ("shown by zeros", reshaped(), [line, np.array([0], "<i4")], {}, line)]
        for name, model_bytes, arrays, settings, expected in rows:
            with self.subTest(name):
                status, _, err = self.run_arrays(model_bytes, arrays, **settings)
                self.assertEqual((status, err), (0, ""))
                np.testing.assert_allclose(self.output(), np.ravel(expected), 1e-4, 1e-5)
            self.setUp()

    def test_ones_leave_something(self):
        """Of every type: where the input is a 1, this shows its index."""
        self.run_arrays(selected(), [np.ones(4, "f4")])
        np.testing.assert_array_equal(self.output(dtype="<i4"), range(4))
        for kind, dtype in ((FLOAT, "f4"), (TensorProto.FLOAT16, "f2"), (DOUBLE, "f4"), (BOOL, "u1"),
                            (TensorProto.UINT8, "u1"), (TensorProto.INT16, "i2"), (INT64, "i4")):
            ones = model([node("Cast", "x", "f", to=FLOAT), node("Equal", "f one", "e"),
                          node("NonZero", "e", "y")], {"x": (kind, [4])}, {"y": (INT64, None)},
                         one=np.float32(1))
            with self.subTest(kind=kind):
                self.setUp()
                self.assertEqual(self.run_arrays(ones, [np.ones(4, dtype)])[::2], (0, ""))
                np.testing.assert_array_equal(self.output(dtype="<i4"), range(4))

    def test_batches(self):
        """As one where the first dimension is symbolic, one by one where it does not stay so."""
        batch = np.arange(24, dtype="f4")
        fixed = model([node("Reshape", "x one", "y")], {"x": (FLOAT, ["N", 8])},
                      {"y": (FLOAT, None)}, one=np.array([1, 8]))
        mean = model([node("ReduceMean", "x", "y", axes=[0], keepdims=1)],
                     {"x": (FLOAT, ["N", 8])}, {"y": (FLOAT, None)})
        for model_bytes in (relu(["N", 8]), relu([1, 8]), fixed, mean):
            status, _, err = self.run_arrays(model_bytes, [batch], "-b", "3")
            self.assertEqual((status, err), (0, ""))
            np.testing.assert_array_equal(self.output(), batch)
            self.setUp()
        summed = model([node("CumSum", "x zero", "y")], {"x": (FLOAT, ["N", 8])},
                       {"y": (FLOAT, ["N", 8])}, zero=np.int64(0))
        self.run_arrays(summed, [batch], "-b", "3")
        np.testing.assert_array_equal(self.output(), batch.reshape(3, 8).cumsum(0).ravel())

    def test_refusals(self):
        open_shapes = ('the model cannot be loaded: it leaves shapes open: write "input_shapes": '
                       '{"x": [1, 3, H, W]}, with numbers for names, into the settings file')
        identity64 = copies({"x": [1]}, INT64)
        squared = model([node("Mul", "x x", "y")], {"x": (INT64, [1])}, {"y": (INT64, [1])})
        nonzero = model([node("NonZero", "x", "y")], {"x": (FLOAT, [4])}, {"y": (INT64, [1, 2])})
        huge = model([node("ConstantOfShape", "s", "c"), node("ReduceMax", "c", "m", keepdims=0),
                      node("Add", "x m", "y")], {"x": (FLOAT, [4]), "s": (INT64, [2])},
                     {"y": (FLOAT, [4])}, unused=np.float32(1))  # of which the engine warns
        line = np.arange(4, dtype="f4")
        rows = [
            (convolution(), [IMAGE], {}, open_shapes),
            (convolution(), [IMAGE], {"input_shapes": {"x": [1, 4, 4, 6]}},
             'the model cannot be loaded: input "x": "input_shapes" has [1, 4, 4, 6], the model '
             "[-1, 3, -2, -3], where negative numbers may be any"),
            (convolution(), [IMAGE], {"input_shapes": {"z": [1]}},
             'the model cannot be loaded: it has no input "z" as "input_shapes" has'),
            (copies({"x": [1]}, TensorProto.UINT64), [line],
             {}, 'the model cannot be loaded: input "x": element type UINT64 has no code'),
            (model([node("Identity", "x", "y")], {"x": (FLOAT, [4])}, {}), [line], {},
             "the model cannot be loaded: it has no outputs"),
            (squared, [np.array([65536], "<i4")], {},
             'execution failed: output "y" holds a number that does not fit 32 bits'),
            (nonzero, [line], {}, 'execution failed: output "y" came out with shape [1, 3], '
             "described is [1, 2]; sizes that depend on the data are not supported"),
            (huge, [line, np.array([2**31 - 1, 2**31 - 1], "<i4")], {},
             "execution failed: .*ConstantOfShape.*"),
            (model([node("Sub", "x x", "z"), node("NonZero", "z", "y")], {"x": (FLOAT, [4])},
                   {"y": (INT64, None)}), [line],
             {}, "the model cannot be loaded: a trial run does not show shapes of outputs: write "
             '"output_shapes": {"y": [1, -1]}, with whole shapes for these, into the settings '
             'file: output "y" came out with shape [1, 0]'),
            (branching(), [line, line], {"input_shapes": {"x": [1, 4]}},
             "the model cannot be loaded: .*ReduceSum.*\nhost runtime: a trial run .*ReduceSum.*"),
            (two_payloads(), [line], {}, "the model cannot be loaded: .*mismatch in attribute alpha.*"),
            (model([helper.make_node("Neg", ["x"], [])], {"x": (FLOAT, [4])}, {"x": (FLOAT, [4])}),
             [line], {}, "the model cannot be loaded: .*output size 0.*"),
            (nested(), [line], {}, "the model cannot be loaded: it is not an ONNX file"),
            (b"\x3a\x7f" * 20000, [line], {}, "the model cannot be loaded: it is not an ONNX file")]
        for model_bytes, arrays, settings, expected in rows:
            with self.subTest(expected):
                status, _, err = self.run_arrays(model_bytes, arrays, **settings)
                self.assertEqual(status, 1)
                expected = expected if ".*" in expected else re.escape(expected)
                self.assertRegex(err, f"^host runtime: {expected}\n$")
        self.run_arrays(identity64, [np.array([-2**31], "<i4")])
        np.testing.assert_array_equal(self.output("x'", "<i4"), [-2**31])

    @unittest.skipIf("debug" in QUILMRUN, "address checking needs the whole address space")
    def test_memory_that_gives_out(self):
        """By many tensors that would find room one by one, and by a large one of a small model."""
        names = [f"e{index}" for index in range(12)]
        many = model([*[node("Expand", "x s" + name, name) for name in names],
                      node("Concat", " ".join(names), "c", axis=0),
                      node("ReduceMax", "c", "y", keepdims=0)], {"x": (FLOAT, [4])},
                     {"y": (FLOAT, None)}, **{"s" + name: np.array([2**24 + index, 4])
                                            for index, name in enumerate(names)})
        large = model([node("Expand", "x s", "e"), node("ReduceMax", "e", "y", keepdims=0)],
                      {"x": (FLOAT, [4])}, {"y": (FLOAT, None)}, s=np.array([2**19, 2**19, 4]))
        given = {"output_shapes": {"y": []}}
        for content, settings, failed in ((many, {}, "the model cannot be loaded"),
                                          (many, given, "execution failed"),
                                          (large, {}, "the model cannot be loaded")):
            self.write("x", floats(1, 2, 3, 4))
            status, _, err = self.run_model(
                content, "x", settings={"threads": 1, **settings},
                within=("prlimit", f"--as={3 * 2**29}"))
            self.assertEqual(status, 1)
            self.assertRegex(err, f"^host runtime: {failed}: .*Failed to allocate.*\n$")

    def test_hints_at_input_data_of_other_kinds(self):
        pixels = RANDOM.randint(1, 256, 256).astype("u1")
        eight_bit = ("holds mostly tiny or huge numbers: 8-bit data? The file seems to have a "
                     "quarter of what 1 batch takes")
        png = "begins like a PNG picture, but a file of bare numbers is expected"
        for data, hint in [(pixels.tobytes(), eight_bit), (b"\x89PNG\r\n\x1a\n" + bytes(1016), png),
                           (pixels.astype("<f4").tobytes(), None), (bytes(1024), None)]:
            self.write("x", data)
            status, _, err = self.run_model(relu([1, 256]), "x\nx\n")
            self.assertEqual((status, err),
                             (0, f'host runtime: input "x" {hint}\n' if hint else ""))

    def test_infinity_nan_and_zero_signs_are_shown(self):
        values = np.array([np.inf, -np.inf, np.nan, -0.0, 1e-40], "<f4")
        self.run_arrays(copies({"x": [5]}), [values])
        self.assertEqual(self.output("x'").tobytes(), values.tobytes())

    def test_complaints_of_schemas_are_left_out(self):
        folder = self.dir / "lib/quilmrun-engine"
        folder.mkdir(parents=True)
        shutil.copy(BUILD / "libquilm.so", folder.parent)
        shutil.copy(BUILD / "libchattering_engine.so", folder / "libonnxruntime.so.1")
        (folder / "real.so").symlink_to((BUILD / "quilmrun-engine/libonnxruntime.so.1").resolve())
        self.write("m.onnx", relu([1, 2]))
        self.write("q.json", "{}")
        status, _, err = self.run_tool("-m", "m.onnx", "-j", "q.json", library=folder.parent)
        self.assertEqual((status, err), (0, "the disk is on fire\n"))

    def test_the_engine_leaves_nothing_in_the_home_directory(self):
        home = self.dir / "home"
        home.mkdir()
        self.write("x", floats(*range(8)))
        status, *_ = self.run_model(relu([1, 8]), "x", within=("env", f"HOME={home}"))
        self.assertEqual((status, os.listdir(home)), (0, []))


if __name__ == "__main__":
    unittest.main()
