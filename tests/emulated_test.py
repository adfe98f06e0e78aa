"""The cross-built executable under emulation leaves behind what the native one does, byte for byte,
where processors differ: in conversions and in the printing and reading of numbers."""

import os
import shutil
import unittest
from unittest import mock

import numpy as np
from onnx import TensorProto

import tool
from models import HostRuntimeTest, copies, identity

TYPES = {TensorProto.FLOAT: "<f4", TensorProto.FLOAT16: "<f2", TensorProto.INT8: "i1",
         TensorProto.INT32: "<i4", TensorProto.UINT8: "u1", TensorProto.INT16: "<i2",
         TensorProto.UINT16: "<u2"}


class SameAsNative(HostRuntimeTest):
    def check_both(self, *arguments):
        """Runs both executables and compares what they leave behind."""
        results = []
        for executable in (os.environ["QUILMRUN_NATIVE"], tool.QUILMRUN):
            with mock.patch.object(tool, "QUILMRUN", executable):
                results.append((*self.run_model(*arguments), self.outputs(), self.csv()))
            shutil.rmtree(self.dir / "out")
            (self.dir / "out").mkdir()
        self.assertEqual(*results)
        self.assertEqual(results[0][0], 0)

    def test_any_bits_of_every_type(self):
        random = np.random.RandomState(5)
        for onnx_type, dtype in TYPES.items():
            with self.subTest(dtype=dtype):
                self.write("x", random.bytes(300 * np.dtype(dtype).itemsize))
                self.check_both(identity([1, 20, 15], onnx_type), "x")

    def test_numbers_as_text(self):
        self.write("x", bytes(8))
        numbers = self.write("rpn", " ".join(["0.1", "1e-42", "-7.25", "16777217"] * 3))
        self.check_both(copies({"x": [1, 2], "rpn": [4, 3]}), "x", "-r", numbers)


if __name__ == "__main__":
    unittest.main()
