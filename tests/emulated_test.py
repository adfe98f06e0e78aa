"""The cross-built executable under emulation leaves behind what the native one does, byte for byte."""

import itertools
import os
import pathlib
import re
import unittest
from unittest import mock

import numpy as np
from onnx import TensorProto

import tool
from models import HostRuntimeTest, copies, identity, relu

EXECUTABLES = os.environ["QUILMRUN_NATIVE"], tool.QUILMRUN
HEADER = pathlib.Path(__file__).parents[1] / "runtime/quilm.h"

TYPES = {TensorProto.FLOAT: "<f4", TensorProto.FLOAT16: "<f2", TensorProto.INT8: "i1",
         TensorProto.INT32: "<i4", TensorProto.UINT8: "u1", TensorProto.INT16: "<i2",
         TensorProto.UINT16: "<u2"}


class SameAsNative(HostRuntimeTest):
    def setUp(self):
        super().setUp()
        self.random = np.random.RandomState(5)

    def elements(self, dtype, count):
        """Any bits at all."""
        return self.random.bytes(count * np.dtype(dtype).itemsize)

    def run_both(self, model_bytes, list_text, *options, settings=None):
        """Runs both executables; returns what the native one left behind after comparing."""
        results = []
        for executable in EXECUTABLES:
            for path in (self.dir / "out").glob("*/*"):
                path.unlink()
            (self.dir / "memory_data.csv").unlink(missing_ok=True)
            with mock.patch.object(tool, "QUILMRUN", executable):
                result = self.run_model(model_bytes, list_text, *options, settings=settings)
            results.append((*result, self.outputs(), self.csv()))
        self.assertEqual(*results)
        return results[0]

    def test_types_strides_and_batches(self):
        for (onnx_type, dtype), shape, alignment, batches in itertools.product(
                TYPES.items(), ([1, 8], [2, 3, 5], [7]), (4, 32, 48), (1, 3)):
            with self.subTest(dtype=dtype, shape=shape, alignment=alignment, batches=batches):
                for name in ("a", "b"):
                    self.write(name, self.elements(dtype, batches * int(np.prod(shape))))
                # Batches are counted by their padded size, so some of these files do not fit.
                status, *_ = self.run_both(identity(shape, onnx_type), "a\nb\n", "-b", batches,
                                           "-p", "1", settings={"row_alignment": alignment})
                self.assertIn(status, (0,) if batches == 1 else (0, 1))

    def test_named_inputs(self):
        proto = copies({"left": [1, 3], "right": [2, 2]})
        for name in "abcd":
            self.write(name, self.elements("<f4", 3 if name in "ac" else 4))
        *_, outputs, _ = self.run_both(proto, "right:b\nleft:a\nleft:c\nright:d\n")
        self.assertEqual(len(outputs), 8)

    def test_recurrent(self):
        proto = copies({"frames": [4, 1, 3], "marks": [1, 4]},
                       properties={"quilm.net_type": "2"})
        self.write("marks", self.elements("<f4", 4))
        self.write("whole", self.elements("<f4", 12))
        for frames in (1, 3, 4, 5):
            self.write("frames", self.elements("<f4", 3 * frames))
            status, *_ = self.run_both(proto, "whole\nmarks\nframes\nmarks\n", "-t", "2")
            self.assertEqual(status, int(frames > 4))

    def test_rpn(self):
        proto = copies({"x": [1, 2], "rpn": [4, 3]})
        self.write("x", self.elements("<f4", 2))
        rpn = self.write("rpn", " ".join(["0.1", "1e-42", "-7.25", "16777217"] * 3))
        status, *_ = self.run_both(proto, "x\n", "-r", rpn)
        self.assertEqual(status, 0)

    def test_faults(self):
        self.write("x", self.elements("<f4", 8))
        functions = sorted(set(re.findall(r"\b(quilm_\w+)\(", HEADER.read_text())))
        self.assertGreater(len(functions), 40)
        for function in functions:
            for code in (507, -1) if function.startswith("quilm_mdl_get") else (507,):
                with self.subTest(function=function, code=code):
                    self.run_both(identity([1, 8]), "x", settings={
                        "faults": [{"function": function, "call": 2, "code": code},
                                   {"function": function, "call": 1, "code": code}]})

    def test_other_nodes_are_refused(self):
        self.write("x", self.elements("<f4", 8))
        status, _, err = self.run_model(relu([1, 8]), "x")
        self.assertEqual((status, err), (1, "host runtime: the model cannot be loaded: this host "
                                            "runtime has no engine, it runs graphs of Identity "
                                            "nodes only\n"))


if __name__ == "__main__":
    unittest.main()
