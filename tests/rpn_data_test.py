"""RPN files and the buffers that they become."""

import re
import struct
import unittest

from scripted import (FAILURE, SAY_DESTROYED, SAY_FREED, SUCCESS, TASK_AND_WORK,
                      ScriptedRuntimeTest)


class RpnData(ScriptedRuntimeTest):
    SINGLE = "input x 4 16 8 2 4\ninput r 0 32 32 1 4\n" + TASK_AND_WORK + "output y 4 16 8 2 4\n"
    MULTI = "input x 4 16 8 2 4\ninput r 0 72 18 4 3\n" + TASK_AND_WORK + "output y 4 16 8 2 4\n"

    def buffers(self):
        return re.findall(r"^  (\d+/\d+):(\w*)$", self.calls(), re.M)

    def test_layouts(self):
        self.write("single", "1 2\t3\n4")
        self.check(0, SUCCESS, self.SINGLE, "-r", "single")
        self.assertIn("[INFO]  input rpn data height[1] * width[4]\n", self.run_scripted(
            self.SINGLE, "-r", "single")[1])
        self.assertEqual(self.buffers()[1],
                         ("32/32", (struct.pack("<4f", 1, 2, 3, 4) + bytes(16)).hex()))
        self.write("multi", " ".join(map(str, range(1, 13))))
        self.check(0, SUCCESS, self.MULTI, "-r", "multi")
        # The stride of 18 bytes is rounded down to 16, four floats.
        rows = b"".join(struct.pack("<4f", 3 * r + 1, 3 * r + 2, 3 * r + 3, 0) for r in range(4))
        self.assertEqual(self.buffers()[1], ("72/18", (rows + bytes(8)).hex()))
        # Which is all that the last row needs of its own.
        self.check(0, SUCCESS, self.MULTI.replace("72 18", "60 18"), "-r", "multi")
        self.check(0, SUCCESS, self.MULTI.replace("72 18", "120012 40000"), "-r", "multi")
        # Where rows overlap, the later one counts.
        self.check(0, SUCCESS, self.MULTI.replace("72 18", "72 8"), "-r", "multi")
        rows = struct.pack("<9f", 1, 2, 4, 5, 7, 8, 10, 11, 12)
        self.assertEqual(self.buffers()[1], ("72/8", (rows + bytes(36)).hex()))

    def test_refused(self):
        end = "[ERROR] Set rpn data failed\n" + FAILURE
        single = "[ERROR] [single thr]: detPara.size {} should be 4, Please check rpn file.\n"
        rows = [
            ("1 2 3 4 5", self.SINGLE, single.format(5)), ("", self.SINGLE, single.format(0)),
            ("1 2 3 4", self.SINGLE.replace("1 4", "1 5"), single.format(4)),
            (" ".join("1" * 11), self.MULTI, "[ERROR] [multi thr]: detPara.size 11 should be 12\n"),
            ("1 2 3 4 5 6", self.SINGLE.replace("1 4", "2 3"),
             "[ERROR] only support single or multi class\n"),
            ("1", self.SINGLE.replace("1 4", "3000000000 3100000000"),
             "[INFO]  input rpn data height[3000000000] * width[3100000000]\n"
             "[ERROR] only support single or multi class\n"),
            ("1", self.SINGLE.replace("1 4", "4 700000000"),
             "[ERROR] [multi thr]: detPara.size 1 should be 2800000000\n"),
            ("1 2 3 4", self.SINGLE.replace("1 4", "1 1 4"),
             "[ERROR] quilm_mdl_get_input_dims rpn_data error!\n"),
            ("1,2,3,4", self.SINGLE, "[ERROR] read rpn para error\n"),
            (" ".join("1" * 12), self.MULTI.replace("72 18", "59 18"),
             "[ERROR] rpn data of 12 values needs 60 bytes, its buffer holds 59\n"
             "[ERROR] SetDetParas error\n"),
            (" ".join("1" * 12), self.MULTI.replace("72 18", f"72 {2**31}"),
             "[ERROR] rpn data of 12 values needs 13835058055282163721 bytes, its buffer holds 72\n"
             "[ERROR] SetDetParas error\n"),
            ("1 2 3 4", self.SINGLE + "fail quilm_rt_malloc 4 7\n",
             "[ERROR] malloc device buffer failed\n[ERROR] SetDetParas error\n"),
            ("1 2 3 4", self.SINGLE + SAY_FREED + "fail quilm_create_data_buffer 3 0\n",
             "freed\n[ERROR] can't create data buffer, create input failed\n"
             "[ERROR] SetDetParas error\n"),
            ("1 2 3 4", self.SINGLE + SAY_FREED + SAY_DESTROYED +
             "fail quilm_mdl_add_dataset_buffer 3 7\n", "[ERROR] add input dataset buffer failed\nfreed\ndestroyed\n"
             "[ERROR] SetDetParas error\n")]
        for content, script, message in rows:
            with self.subTest(message=message):
                self.write("rpn", content)
                self.check(1, message + end, script, "-r", "rpn")

    def test_all_files_are_checked_before_any_is_used(self):
        two = self.SINGLE.replace("input r", "input q 0 32 32 1 4\ninput r")
        self.write("good", "1 2 3 4")
        self.write("better", "5 6 7 8")
        self.write("bad", "1 2 3")
        self.check(1, "[ERROR] Set rpn data failed\n" + FAILURE, two, "-r", "good,bad")
        self.assertEqual(self.calls().count("quilm_create_data_buffer"), 2)  # output and data
        _, out = self.run_scripted(two, "-r", "better,good")
        self.assertIn("Model inputNum: 1\n", out)
        self.assertEqual([content[:8] for _, content in self.buffers()[1:]],
                         [struct.pack("<f", v).hex() for v in (5, 1)] + ["00000000"] * 2)


if __name__ == "__main__":
    unittest.main()
