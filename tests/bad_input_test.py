"""Bad input, faults and limits on the host runtime: messages, exit status, and nothing left over."""

import os
import pathlib
import resource
import unittest

from onnx import TensorProto, helper

from models import (FAILURE, SHAPE_WARNING, SUCCESS, HostRuntimeTest, copies, executed,
                    identity, model, tensor)
from tool import BUILD, NO_MEDIA_MEMORY, QUILMRUN, TEARDOWN


class BadInput(HostRuntimeTest):
    """Each ends in its messages and status, with everything released: stderr holds no leftovers."""

    def check(self, expected_status, expected_tail, *options, model_bytes=None, list_text="x",
              stderr=""):
        status, out, err = self.run_model(model_bytes or identity([1, 8]), list_text, *options)
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
        size = 2**20 * (2**32 - 1)  # more than any PC has
        self.check(1, f"[ERROR] can't malloc buffer, size is {size}, create output failed\n" +
                   no_output, "-b", "-1", model_bytes=identity([1, 2**18]),
                   stderr=f"host runtime: quilm_rt_malloc: no memory for {size} bytes\n")
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
        reason = "has no engine" if "EMULATOR" in os.environ else r"odd one[^\n]*Frobnicate"
        self.assertRegex(err, rf"^host runtime: [^\n]*{reason}[^\n]*\n$")
        for content, reason in [
                (b"#!/bin/sh\necho this is no model\n", "it is not an ONNX file"),
                (identity([1, 8])[:-20], "it is not an ONNX file"),
                (identity([0, 8]), 'input "x": with shape [0, 8] it is empty or too large'),
                (model([helper.make_node("Neg", ["x"], ["y"])], [tensor("x", [3, 1])],
                       [tensor("y", [3, 1])], properties={"quilm.net_type": "2"}),
                 "a recurrent model's input 0 has as many frames, its first dimension, as input 1 "
                 "has marks, its last"),
                (model([helper.make_node("Neg", ["x"], ["y"])], [tensor("x", [3, 1])],
                       [tensor("y", [3, 1])], properties={"quilm.net_type": "2x"}),
                 'quilm.net_type "2x" is not a number'),
                (identity([1], TensorProto.STRING),
                 'input "x": element type STRING has no code')]:
            self.check(1, failed, model_bytes=content,
                       stderr=f"host runtime: the model cannot be loaded: {reason}\n")
        whole = (pathlib.Path(__file__).parent.parent / "examples/digits/digits.onnx").read_bytes()
        for cut in range(1, len(whole), len(whole) // 20):
            status, out, err = self.run_model(whole[:cut], "x")
            self.assertEqual((status, out[-len(failed):]), (1, failed))
            self.assertRegex(err, "^host runtime: the model cannot be loaded: [^\n]+\n$")
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

    def test_settings(self):
        self.write("m.onnx", identity([1, 8]))
        cores = len(os.sched_getaffinity(0))
        for content, reason in [
                (None, "cannot be opened"), (os.mkfifo, "is not a regular file"), ("{", "parse error"), ("[]", "JSON object"),
                ('{"run_node": 0}', 'unknown key "run_node"'), ('{"run_mode": "0"}', '"run_mode": .* type must be number'),
                ('{"row_alignment": 0}', "from 1"), ('{"row_alignment": 1.5}', "whole ones"),
                ('{"threads": -1}', "whole ones"), ('{"threads": 4294967296}', "2147483647"),
                (f'{{"threads": {cores * 4 + 1}}}', f"{cores * 4 + 1} is more than {cores * 4}, 4 times"),
                ('{"faults": [{"function": "quilm_init", "call": 1, "kode": 1}]}', "takes"),
                ('{"faults": {}}', "must be array"), ('{"faults": [{"function": "quilm_init"}]}', "call"),
                ('{"faults": [{"function": "printf", "call": 1}]}', "no such function"),
                ("[" * 200000, "too deeply")]:
            with self.subTest(content=content):
                if callable(content):
                    content(self.dir / "q.json")
                elif content is not None:
                    (self.dir / "q.json").unlink(missing_ok=True)
                    self.write("q.json", content)
                status, out, err = self.run_tool("-m", "m.onnx", "-j", "q.json")
                self.assertEqual(status, 1)
                self.assertIn("[ERROR] quilm init failed\n[ERROR] sample init resource failed\n"
                              "[INFO]  end to destroy stream\n[INFO]  end to destroy context\n"
                              "[ERROR] reset device failed\n[INFO]  end to reset device is 0\n"
                              "[ERROR] finalize quilm failed\n[INFO]  end to finalize quilm\n", out)
                self.assertRegex(err, rf"^host runtime: settings file \$D/q.json: .*{reason}.*\n$")
                self.assertEqual(self.csv(), "T,T,T,0.000,0.000,0.000,0.000,0.000,0\n")

    def test_a_report_that_nobody_reads(self):
        self.write("x", bytes(32))
        os.mkfifo(self.dir / "memory_data.csv")
        self.check(0, SUCCESS + "[WARN]  can't write memory report $D/memory_data.csv: No such "
                                "device or address\n")

    @unittest.skipIf("debug" in QUILMRUN or "EMULATOR" in os.environ,
                     "address checking and emulation need the whole address space")
    def test_files_that_go_on_and_on(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_AS, (2**28, 2**28))
        self.write("m.onnx", identity([1, 8]))
        self.write("q.json", "{}")
        status, out, _ = self.run_tool("-m", "m.onnx", "-i", "/dev/zero", "-j", "q.json",
                                       library=str(BUILD / "host_identity"), preexec_fn=limit)
        self.assertIn("[ERROR] a line of file /dev/zero is longer than 1048576 bytes\n", out)
        self.assertRegex(out, r"\[ERROR\] inputPath size = 1\d{6}, out of range \(0, 4096\] error\n")
        self.assertEqual(status, 1)
        for content, said in (("1 " * 2**24 + "1", "file $D/rpn holds more than 16777216 numbers"),
                              ("0." + "0" * 2**21, "a number in file $D/rpn is longer than 1048576 "
                                                   "bytes")):
            self.write("x", bytes(16))
            self.write("rpn", content)
            self.check(1, f"[ERROR] {said}\n[ERROR] read rpn para error\n"
                       "[ERROR] Set rpn data failed\n" + FAILURE, "-r", "rpn",
                       model_bytes=copies({"x": [1, 4], "r": [1, 4]}))

    def test_report_goes_after_the_last_separator_of_either_kind(self):
        self.write("m.onnx", identity([1, 8]))
        self.write("d/q\\q.json", "{}")
        (self.dir / "d/q").mkdir()
        self.run_tool("-m", "m.onnx", "-j", "d/q\\q.json")
        self.assertRegex(self.csv("d/q"), "^T,T,T,0.031,")

    def test_settings_shape_the_description(self):
        self.write("x", bytes(32))
        settings = {"row_alignment": 64, "task_buffer_size": 96, "work_buffer_size": 160}
        _, out, _ = self.run_model(identity([1, 8]), "x", settings=settings)
        for line in ("DataType: 0, stride: 64, format: 0, dataSizeWithStride: 64",
                     "DataType: 4, stride: 96, format: 0, dataSizeWithStride: 96",
                     "DataType: 4, stride: 160, format: 0, dataSizeWithStride: 160"):
            self.assertIn(f"[INFO]  {line}\n", out)
        for length, stride in ((31, 32), (32, 32), (33, 64)):
            _, out, _ = self.run_model(identity([1, length], TensorProto.UINT8), "x")
            self.assertIn(f"DataType: 4, stride: {stride}, format: 0", out)
        _, _, err = self.run_model(identity([1, 4]), "x", settings={"row_alignment": 6})
        self.assertEqual(err, 'host runtime: the model cannot be loaded: input "x": its elements '
                              "do not fit a row_alignment of 6\n")


if __name__ == "__main__":
    unittest.main()
