"""Whole runs on the host runtime: everything printed, every output file and the memory report."""

import json
import os
import struct
import unittest

import numpy as np
import onnx
from onnx import TensorProto, helper

from tool import BRING_UP, NO_MEDIA_MEMORY, TEARDOWN, ToolTest


def tensor(name, shape, element_type=TensorProto.FLOAT):
    return helper.make_tensor_value_info(name, element_type, shape)


def model(nodes, inputs, outputs, initializers=(), properties=()):
    graph = helper.make_graph(nodes, "g", inputs, outputs, list(initializers))
    proto = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    proto.ir_version = 7
    helper.set_model_props(proto, dict(properties))
    return proto.SerializeToString()


def relu(shape, element_type=TensorProto.FLOAT):
    return model([helper.make_node("Relu", ["x"], ["y"])], [tensor("x", shape, element_type)],
                 [tensor("y", shape, element_type)])


def floats(*values):
    return struct.pack(f"<{len(values)}f", *values)


def text(*values):
    return "".join(f"{value:.16f}\n" for value in values).encode()


def files(run, name, *values):
    """The two files of one output, as outputs() shows them."""
    return {f"{run}/{name}.0.S.float": text(*values), f"{run}/{name}.0.S.bin": floats(*values)}


def info_block(inputs, outputs):
    """The description as printed, from (name, shape, type, stride, size) rows."""
    def lines(kind, rows):
        return f"[INFO]  ------------------ {kind} Info ------------------\n" + "".join(
            f"[INFO]  {kind} index: {i}, name: {name}\n[INFO]  Shape: {shape}\n"
            f"[INFO]  DataType: {code}, stride: {stride}, format: 0, dataSizeWithStride: {size}\n"
            for i, (name, shape, code, stride, size) in enumerate(rows))
    return "[INFO]  create model description success\n" + lines("Input", inputs) + \
        lines("Output", outputs)


def buffers(batch=1):
    return [("task_buffer", "[1024, ]", 4, 1024, batch * 1024),
            ("work_buffer", "[4096, ]", 4, 4096, batch * 4096)]


def staged(name, size, stride, element, shape):
    return (f"[INFO]  start to process file:$D/{name}\n"
            f"[INFO]  The amount of data required for inference in a single batch is [{size}]\n"
            f"[INFO]  The stride of model is [{stride}]\n"
            f"[INFO]  The data size of data type is [{element}]\n"
            f"[INFO]  Reading bin file [$D/{name}]\n"
            f"[INFO]  The shape of the model is [{shape}]\n")


def executed(batch=1, types=(0,)):
    return (f"[WARN]  quilm_mdl_set_dynamic_batch_size set batchsize to {batch}\n"
            "[INFO]  model execute success\n" +
            "".join(f"[INFO]  The value of quilm_data_type is [{code}]\n" for code in types) +
            "[INFO]  dump data success\n")


def paths(*names):
    return "".join(f"[INFO]  inputPath: $D/{name}\n" for name in names)


LOADED = NO_MEDIA_MEMORY * 2 + "[INFO]  load model $D/m.onnx success\n"
UNLOADED = "[INFO]  unload model success, modelId is 1\n"
SUCCESS = UNLOADED + "[INFO]  execute sample success\n" + TEARDOWN
FAILURE = UNLOADED + "[ERROR] sample process failed\n" + TEARDOWN
SHAPE_WARNING = "[WARN]  The input data shape not match model's input shape [N,C,H,W]\n"


class HostRuntimeTest(ToolTest):
    def run_model(self, model_bytes, list_text, *options, settings=None):
        self.write("m.onnx", model_bytes)
        self.write("list.txt", list_text)
        self.write("q.json", json.dumps(settings or {}))
        return self.run_tool("-m", self.dir / "m.onnx", "-i", self.dir / "list.txt", "-j",
                             self.dir / "q.json", "-o", "out", *options)


class WholeRuns(HostRuntimeTest):
    def test_one_padded_input_and_several_groups(self):
        for k in range(3):
            self.write(f"{k}.bin", floats(*[10 * k + i for i in range(6)]))
        status, out, err = self.run_model(relu(["N", 2, 3]), "0.bin\n\n1.bin\n2.bin")
        self.assertEqual((status, err), (0, ""))
        row = ("[1, 2, 3, ]", 0, 32, 64)
        self.assertEqual(out, paths("m.onnx", "q.json") + BRING_UP + LOADED + info_block(
            [("x", *row), *buffers()], [("y", *row)]) + paths("0.bin", "1.bin", "2.bin") +
            "[INFO]  create model output success\n[INFO]  Model inputNum: 1\n"
            "[INFO]  Model Iters : 3\n" + "".join(
                staged(f"{k}.bin", 64, 32, 4, "1,2,3") + executed() for k in range(3)) + SUCCESS)
        expected = {}
        for k in range(3):
            expected.update(files(k, "y", *[10 * k + i for i in range(6)]))
        self.assertEqual(self.outputs(), expected)
        size = (self.dir / "m.onnx").stat().st_size / 1024
        self.assertEqual(self.csv(), f"T,T,T,0.062,1.000,0.062,4.000,{size:.3f},0\n")

    def test_two_inputs_named_in_any_order(self):
        nodes = [helper.make_node("Sub", ["a", "b"], ["d.1"]),
                 helper.make_node("Neg", ["d.1"], ["d/1"])]
        proto = model(nodes, [tensor("a", [1, 2]), tensor("b", [1, 2])],
                      [tensor("d.1", [1, 2]), tensor("d/1", [1, 2])])
        for k in range(2):
            self.write(f"a{k}", floats(1, 2))
            self.write(f"b{k}", floats(10 * k, 1))
        status, out, err = self.run_model(proto, "b:b0\na:a0\na:a1\nb:b1\n")
        self.assertEqual((status, err), (0, ""))
        row = ("[1, 2, ]", 0, 32, 32)
        groups = "".join(staged(f"a{k}", 32, 32, 4, "1,2") + staged(f"b{k}", 32, 32, 4, "1,2") +
                         executed(types=(0, 0)) for k in range(2))
        self.assertEqual(out, paths("m.onnx", "q.json") + BRING_UP + LOADED + info_block(
            [("a", *row), ("b", *row), *buffers()], [("d.1", *row), ("d/1", *row)]) +
            paths("a0", "b0", "a1", "b1") + "[INFO]  create model output success\n"
            "[INFO]  Model inputNum: 2\n[INFO]  Model Iters : 2\n" + groups + SUCCESS)
        # Both names become d_1, so the second output counts as a duplicate.
        self.assertEqual(self.outputs(), {
            "0/d_1.0.S.float": text(1, 1), "0/d_1.0.S.bin": floats(1, 1),
            "0/d_1.1.S.float": text(-1, -1), "0/d_1.1.S.bin": floats(-1, -1),
            "1/d_1.0.S.float": text(-9, 1), "1/d_1.0.S.bin": floats(-9, 1),
            "1/d_1.1.S.float": text(9, -1), "1/d_1.1.S.bin": floats(9, -1)})

    def test_batch_reset_from_the_file(self):
        values = list(range(4 * 8))
        self.write("four", floats(*values))
        self.write("one", floats(*values[:8]))
        status, out, err = self.run_model(relu([1, 8]), "four\none\n", "-b", "8")
        self.assertEqual((status, err), (0, ""))
        reset = SHAPE_WARNING + "[WARN]  Reset the batchSize to [{}]\n"
        self.assertIn("dataSizeWithStride: 256\n", out)
        self.assertIn(staged("four", 32, 32, 4, "1,8") + reset.format(4) + executed(4) +
                      staged("one", 32, 32, 4, "1,8") + reset.format(1) + executed(1) + SUCCESS, out)
        self.assertEqual(self.outputs(), {**files(0, "y", *values), **files(1, "y", *values[:8])})

    def test_profile_run(self):
        self.write("a", floats(*range(8)))
        status, out, _ = self.run_model(relu([1, 8]), "a", "-p", "1", settings={
            "faults": [{"function": "quilm_mdl_execute", "call": 20, "code": 5}]})
        self.assertEqual(status, 0)  # the last of the 21 executions decides
        size = (self.dir / "m.onnx").stat().st_size / 1024
        self.assertEqual(out[out.index("[INFO]  end to finalize"):], f"""\
[INFO]  end to finalize quilm
[INFO]  ===================================================
[INFO]  Input Size:                0.031 KB.
[INFO]  Task Buffer Size:          1.000 KB.
[INFO]  Work Buffer Size:          4.000 KB.
[INFO]  Output Size:               0.031 KB.
[INFO]  ModelInfoMem Size:         0 KB.
[INFO]  QuilmInitMem Size:           0 KB.
[INFO]  Om Size:                   {size:.3f} KB.
[INFO]  ---------------------------------------------------
[INFO]  Read Model File Time:      T ms
[INFO]  Model Load Time:           T ms
[INFO]  Model Execute Time:        T ms
[INFO]  ===================================================
""")
        status, out, _ = self.run_model(relu([1, 8]), "a", "-p", "1", settings={
            "faults": [{"function": "quilm_mdl_execute", "call": 21, "code": 5}]})
        self.assertEqual(status, 1)
        self.assertIn("[ERROR] execute model failed, modelId is 1\n"
                      "[ERROR] execute inference failed\n" + FAILURE, out)

    def test_failing_group_in_the_middle(self):
        for k in range(4):
            self.write(str(k), floats(*range(8)))
        status, out, err = self.run_model(relu([1, 8]), "0\n1\n2\n3", settings={
            "faults": [{"function": "quilm_mdl_execute", "call": 3, "code": 507}]})
        self.assertEqual((status, err), (1, ""))
        self.assertTrue(out.endswith(
            staged("1", 32, 32, 4, "1,8") + executed() + staged("2", 32, 32, 4, "1,8") +
            "[WARN]  quilm_mdl_set_dynamic_batch_size set batchsize to 1\n"
            "[ERROR] execute model failed, modelId is 1\n"
            "[ERROR] execute inference failed\n" + FAILURE))
        self.assertEqual(sorted({name[0] for name in self.outputs()}), ["0", "1"])

    def test_recurrent_model(self):
        # Two of three frames are there; the staged third one counts as zeros, marks are not cut.
        shape = [3, 1, 2]
        proto = model([helper.make_node("Neg", ["f"], ["y"]), helper.make_node("Neg", ["m"], ["n"])],
                      [tensor("f", shape), tensor("m", [1, 3])],
                      [tensor("y", shape), tensor("n", [1, 3])], properties={"quilm.net_type": "2"})
        self.write("frames", floats(1, 2, 3, 4))
        self.write("marks", floats(1, 1, 1))
        status, out, err = self.run_model(proto, "m:marks\nf:frames", "-t", "1", "-b", "1")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("[INFO]  nlpTotalT: 1\n", out)
        self.assertIn("[WARN]  quilm_mdl_set_dynamic_batch_size set batchsize to 1\n"
                      "[INFO]  quilm_ext_get_mdl_net_type model type: 2\n"
                      "[WARN]  quilm_mdl_set_total_t set total_t to 2\n"
                      "[INFO]  model execute success\n", out)
        self.assertEqual(self.outputs(), {**files(0, "y", -1, -2, -3, -4, 0, 0),
                                          **files(0, "n", -1, -1, -1)})
        _, out, _ = self.run_model(relu([1, 2]), "marks", "-t", "4", "-b", "2")
        self.assertIn("model type: 0\n[INFO]  model execute success\n", out)

    def test_rpn_data(self):
        proto = model([helper.make_node("Neg", ["x"], ["y"]), helper.make_node("Neg", ["r"], ["s"])],
                      [tensor("x", [1, 2]), tensor("r", [4, 2])],
                      [tensor("y", [1, 2]), tensor("s", [4, 2])])
        self.write("x", floats(1, 2))
        rpn = self.write("rpn", "1 2\n3 4\n5 6\n7 8\n")
        status, out, err = self.run_model(proto, "x\nx\n", "-r", rpn)
        self.assertEqual((status, err), (0, ""))
        self.assertEqual(out.count("[INFO]  input rpn data height[4] * width[2]\n"), 2)
        self.assertEqual(self.outputs(), {
            name: content for run in (0, 1) for name, content in {
                **files(run, "y", -1, -2), **files(run, "s", *range(-1, -9, -1))}.items()})

    def test_every_element_type(self):
        rows = [
            (TensorProto.UINT8, 4, "u1", [0, 7, 255]), (TensorProto.INT8, 2, "i1", [-128, 3, 127]),
            (TensorProto.UINT16, 7, "<u2", [0, 9, 65535]),
            (TensorProto.INT16, 6, "<i2", [-32768, 9, 32767]),
            (TensorProto.INT32, 3, "<i4", [-16777215, 9, 16777215]),
            (TensorProto.FLOAT16, 1, "<f2", [-1.5, 9, 65504]),
            (TensorProto.FLOAT, 0, "<f4", [-1.5, 9, 1e-40])]
        for element_type, code, dtype, values in rows:
            with self.subTest(code=code):
                data = np.array(values, dtype)
                self.write("x.bin", data.tobytes())
                proto = model([helper.make_node("Identity", ["x"], ["y"])],
                              [tensor("x", [1, 3], element_type)],
                              [tensor("y", [1, 3], element_type)])
                os.makedirs(self.dir / f"out/{code}", exist_ok=True)
                status, out, err = self.run_model(proto, "x.bin", "-o", f"out/{code}")
                self.assertEqual((status, err), (0, ""))
                self.assertIn(f"[INFO]  The value of quilm_data_type is [{code}]\n", out)
                # Half floats are dumped as their 16 bits, 32-bit integers as their 32 bits.
                dumped = data.view({1: "<u2", 3: "<f4"}.get(code, dtype)).astype("<f4")
                self.assertEqual(self.outputs(f"out/{code}"), files(0, "y", *dumped))


class BadInput(HostRuntimeTest):
    """Each ends in its messages and status, with everything released: stderr holds no leftovers."""

    def check(self, expected_status, expected_tail, *options, model_bytes=None, list_text="x",
              stderr=""):
        status, out, err = self.run_model(model_bytes or relu([1, 8]), list_text, *options)
        self.assertTrue(out.endswith(expected_tail), out)
        self.assertEqual((status, err), (expected_status, stderr))

    def test_files_of_the_wrong_size(self):
        batch = bytes(32)
        cases = [
            (batch[:16], "1", SHAPE_WARNING + executed(1) + SUCCESS, 0),
            (batch + b"x", "1", None, 33),
            (batch * 2, "1", None, 64),
            (batch * 2 + batch[:16], "8", None, 80),
            (b"", "1", "[INFO]  Reading bin file [$D/x]\n[ERROR] Empty file: $D/x\n"
                       "[ERROR] get pic device buffer failed\n[ERROR] CreateInputBuf failed\n" +
             FAILURE, 1)]
        for content, batch_size, tail, number in cases:
            with self.subTest(size=len(content)):
                self.write("x", content)
                if tail is None:
                    limit = 32 * min(int(batch_size), len(content) // 32)
                    tail = (f"[ERROR] Input data size[{number}] must be smaller than malloc "
                            f"size[{limit}]\n[ERROR] get pic device buffer failed\n"
                            "[ERROR] CreateInputBuf failed\n" + FAILURE)
                    number = 1
                self.check(number, tail, "-b", batch_size)

    def test_lists(self):
        self.write("x", bytes(32))
        (self.dir / "d").mkdir()
        failed = "[ERROR] get pic device buffer failed\n[ERROR] CreateInputBuf failed\n" + FAILURE
        self.check(1, "[ERROR] failed to get file $D/x\r\n" + failed, list_text="x\r\n")
        self.check(1, "[ERROR] failed to get file $D/no\n" + failed, list_text="x\nno\n")
        self.check(1, "[ERROR] $D/d is not a file, please enter a file\n" + failed, list_text="d")
        self.check(0, "[INFO]  Model Iters : 0\n" + SUCCESS, list_text="\n")
        self.check(0, "[INFO]  Model Iters : 0\n" + SUCCESS, "-i", "missing.txt")

    def test_batch_sizes(self):
        self.write("x", bytes(32))
        no_output = "[ERROR] execute CreateOutput failed\n" + FAILURE
        self.check(1, "[ERROR] Error, output size is 0.\n" + no_output, "-b", "0")
        self.check(1, f"[ERROR] can't malloc buffer, size is {32 * (2**32 - 1)}, create output "
                      "failed\n" + no_output, "-b", "-1",
                   stderr=f"host runtime: quilm_rt_malloc: no memory for {32 * (2**32 - 1)} "
                          "bytes\n")
        self.check(0, SUCCESS, "-b", "1x")
        for bad in ("x", "99999999999"):
            status, out, err = self.run_tool("-b", bad)
            self.assertEqual((status, out, err), (
                1, f'[ERROR] option -b: "{bad}" is not a number from -2147483648 to 2147483647\n',
                ""))

    def test_models(self):
        failed = ("[ERROR] load model from file failed, model file is $D/m.onnx\n"
                  "[ERROR] execute LoadModelFromFileWithMem failed\n"
                  "[WARN]  no model had been loaded, unload failed\n"
                  "[ERROR] sample process failed\n" + TEARDOWN)
        unsupported = model([helper.make_node("Frobnicate", ["x"], ["y"], name="odd one")],
                            [tensor("x", [1, 8])], [tensor("y", [1, 8])])
        status, out, err = self.run_model(unsupported, "x")
        self.assertTrue(out.endswith(failed), out)
        self.assertRegex(err, r'^host runtime: [^\n]*odd one[^\n]*Frobnicate[^\n]*\n$')
        int64 = model([helper.make_node("Identity", ["x"], ["y"])],
                      [tensor("x", [1], TensorProto.INT64)], [tensor("y", [1], TensorProto.INT64)])
        for content, reason in [
                (b"#!/bin/sh\necho this is no model\n", "it is not an ONNX file"),
                (relu([1, 8])[:-20], "it is not an ONNX file"),
                (relu([1, "W"]), 'input "x": dimension 1 is not a number'),
                (relu([0, 8]), 'input "x": dimension 0 is not above 0'),
                (model([helper.make_node("Neg", ["x"], ["y"])], [tensor("x", [3, 1])],
                       [tensor("y", [3, 1])], properties={"quilm.net_type": "2"}),
                 "a recurrent model's input 0 has as many frames, its first dimension, as input 1 "
                 "has marks, its last"),
                (model([helper.make_node("Neg", ["x"], ["y"])], [tensor("x", [3, 1])],
                       [tensor("y", [3, 1])], properties={"quilm.net_type": "2x"}),
                 'quilm.net_type "2x" is not a number'),
                (int64, 'input "x": element type INT64 has no code')]:
            self.check(1, failed, model_bytes=content,
                       stderr=f"host runtime: the model cannot be loaded: {reason}\n")
        empty = "[ERROR] binfile is empty, filename is $D/m.onnx\n"
        self.write("m.onnx", b"")
        self.write("q.json", "{}")
        _, out, _ = self.run_tool("-m", "m.onnx", "-j", "q.json")
        self.assertIn(empty + NO_MEDIA_MEMORY + empty + NO_MEDIA_MEMORY + failed, out)

    def test_files_of_unsupported_kinds(self):
        self.write("q.json", "{}")
        os.mkfifo(self.dir / "fifo")
        with open(self.dir / "huge", "wb") as huge:
            huge.truncate(2**31)
        too_large = "[ERROR] file $D/huge is too large, 2 GiB or more is not supported\n"
        for name, messages in [
                ("fifo", ("[ERROR] $D/fifo is not a file, please enter a file\n",
                          "[ERROR] can't get the size of file $D/fifo\n")),
                (".", ("[ERROR] $D is not a file, please enter a file\n",
                       "[ERROR] open file $D failed\n")),
                ("none", ("[ERROR] failed to get file $D/none\n",
                          "[ERROR] open file $D/none failed\n")),
                ("huge", (too_large, too_large))]:
            status, out, _ = self.run_tool("-m", name, "-j", "q.json")
            self.assertEqual(status, 1)
            self.assertIn(NO_MEDIA_MEMORY.join(messages), out)
        self.check(1, "[INFO]  Reading bin file [$D/huge]\n" + too_large +
                   "[ERROR] get pic device buffer failed\n[ERROR] CreateInputBuf failed\n" +
                   FAILURE, list_text="huge")

    def test_options_behind_words(self):
        os.environ["POSIXLY_CORRECT"] = "1"
        self.addCleanup(os.environ.pop, "POSIXLY_CORRECT")
        _, out, _ = self.run_tool("word", "-b", "8", "word", "-t", "2", "--", "-b", "9")
        self.assertTrue(out.startswith("[INFO]  batchSize: 8\n[INFO]  nlpTotalT: 2\n"
                                       "[INFO]  inputPath: \n"), out)

    def test_settings(self):
        self.write("m.onnx", relu([1, 8]))
        for content, reason in [
                (None, "cannot be opened"), ("{", "parse error"), ("[]", "JSON object"),
                ('{"run_node": 0}', 'unknown key "run_node"'), ('{"run_mode": "0"}', "whole number"),
                ('{"row_alignment": 0}', "from 1"), ('{"row_alignment": 1.5}', "whole number"),
                ('{"faults": {}}', "list"), ('{"faults": [{"function": "quilm_init"}]}', "needs"),
                ('{"faults": [{"function": "printf", "call": 1}]}', "no such function")]:
            with self.subTest(content=content):
                if content is not None:
                    self.write("q.json", content)
                status, out, err = self.run_tool("-m", "m.onnx", "-j", "q.json")
                self.assertEqual(status, 1)
                self.assertIn("[ERROR] quilm init failed\n[ERROR] sample init resource failed\n"
                              "[INFO]  end to destroy stream\n[INFO]  end to destroy context\n"
                              "[ERROR] reset device failed\n[INFO]  end to reset device is 0\n"
                              "[ERROR] finalize quilm failed\n[INFO]  end to finalize quilm\n", out)
                self.assertRegex(err, rf"^host runtime: settings file \$D/q.json: .*{reason}.*\n$")
                self.assertEqual(self.csv(), "T,T,T,0.000,0.000,0.000,0.000,0.000,0\n")

    def test_outputs_that_cannot_be_written(self):
        self.write("x", bytes(32))
        for directory in ("no/such", "/dev/full", "/proc"):
            files_failed = "".join(f"[ERROR] create output file [{directory}/0/y.0.S.{suffix}] "
                                   "failed\n" for suffix in ("float", "bin"))
            self.check(0, files_failed + "[INFO]  dump data success\n" + SUCCESS, "-o", directory)

    def test_numbers_that_floats_cannot_carry(self):
        identity = model([helper.make_node("Identity", ["x"], ["y"])],
                         [tensor("x", [1, 2], TensorProto.INT32)],
                         [tensor("y", [1, 2], TensorProto.INT32)])
        self.write("x", np.array([1, 2**24 + 1], "<i4").tobytes())
        self.check(1, "[ERROR] execute inference failed\n" + FAILURE, model_bytes=identity,
                   stderr='host runtime: execution failed: "x" holds a number that is not below '
                          "2^24 in magnitude, which the engine cannot carry exactly as an "
                          "integer\n")


if __name__ == "__main__":
    unittest.main()
