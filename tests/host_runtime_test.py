"""Whole runs on the host runtime: everything printed, every output file and the memory report."""

import unittest

import numpy as np
from onnx import TensorProto, helper

from models import (FAILURE, NOT_EXECUTED, SHAPE_WARNING, SUCCESS, HostRuntimeTest, executed, files,
                    floats, identity, model, staged, tensor, whole_log)


class WholeRuns(HostRuntimeTest):
    """Compares everything that a run leaves behind."""

    def check_run(self, result, expected_log, expected_files, expected_csv, status=0):
        self.assertEqual((result[0], result[2]), (status, ""))
        self.assertEqual(result[1], expected_log)
        self.assertEqual(self.outputs(), expected_files)
        self.assertEqual(self.csv(), self.expected_csv(*expected_csv))

    def test_one_padded_input_and_several_groups(self):
        entries = [f"{k}.bin" for k in range(3)]
        for k, name in enumerate(entries):
            self.write(name, floats(*range(10 * k, 10 * k + 6)))
        row = ("[1, 2, 3, ]", 0, 32, 64)
        self.check_run(
            self.run_model(identity(["N", 2, 3]), "0.bin\n\n1.bin\n2.bin"),
            whole_log([("x", *row)], [("y", *row)], entries, "".join(
                staged(name, 64, 32, 4, "1,2,3") + executed() for name in entries)),
            {name: content for k in range(3)
             for name, content in files(k, "y", *range(10 * k, 10 * k + 6)).items()},
            ("0.062", "0.062"))

    def test_batch_reset_from_the_file(self):
        values = list(range(4 * 8))
        self.write("four", floats(*values))
        self.write("one", floats(*values[:8]))
        row = ("[1, 8, ]", 0, 32, 256)
        reset = SHAPE_WARNING + "[WARN]  Reset the batchSize to [{}]\n"
        self.check_run(
            self.run_model(identity([1, 8]), "four\none\n", "-b", "8"),
            whole_log([("x", *row)], [("y", *row)], ["four", "one"],
                      staged("four", 32, 32, 4, "1,8") + reset.format(4) + executed(4) +
                      staged("one", 32, 32, 4, "1,8") + reset.format(1) + executed(1),
                      echo="[INFO]  batchSize: 8\n", batch=8),
            {**files(0, "y", *values), **files(1, "y", *values[:8])}, ("0.031", "0.031"))

    def profile_log(self, groups, end):
        size = (self.dir / "m.onnx").stat().st_size / 1024
        row = ("[1, 8, ]", 0, 32, 32)
        return whole_log([("x", *row)], [("y", *row)], ["a"], groups, end) + f"""\
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
"""

    def test_profile_runs(self):
        self.write("a", floats(*range(8)))
        before = staged("a", 32, 32, 4, "1,8")
        for failing, status, groups, end in [
                (20, 0, before + executed(), SUCCESS),
                (21, 1, before + NOT_EXECUTED, FAILURE)]:  # the last of the 21 decides
            result = self.run_model(identity([1, 8]), "a", "-p", "1", settings={
                "faults": [{"function": "quilm_mdl_execute", "call": failing, "code": 5}]})
            self.check_run(result, self.profile_log(groups, end), files(0, "y", *range(8)),
                           ("0.031", "0.031"), status)

    def test_recurrent_model(self):
        # Two of three frames are there; the staged third one counts as zeros, marks are not cut.
        shape = [3, 1, 2]
        proto = model([helper.make_node("Identity", ["f"], ["y"]),
                       helper.make_node("Identity", ["m"], ["n"])],
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
        self.assertEqual(self.outputs(), {**files(0, "y", 1, 2, 3, 4, 0, 0),
                                          **files(0, "n", 1, 1, 1)})
        _, out, _ = self.run_model(identity([1, 2]), "marks", "-t", "4", "-b", "2")
        self.assertIn("model type: 0\n[INFO]  model execute success\n", out)

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
                for path in (self.dir / "out").glob("*/*"):
                    path.unlink()
                row = ("[1, 3, ]", code, 32, 32)
                # Half floats are dumped as their 16 bits, 32-bit integers as their 32 bits.
                dumped = data.view({1: "<u2", 3: "<f4"}.get(code, dtype)).astype("<f4")
                self.check_run(
                    self.run_model(identity([1, 3], element_type), "x.bin"),
                    whole_log([("x", *row)], [("y", *row)], ["x.bin"],
                              staged("x.bin", 32, 32, data.itemsize, "1,3") +
                              executed(types=(code,))),
                    files(0, "y", *dumped), ("0.031", "0.031"))


if __name__ == "__main__":
    unittest.main()
