"""quilmrun-compare: its command line, and what it refuses."""

import pathlib
import shutil
import sys
import unittest

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import CompareTest


class Refusals(CompareTest):
    def test_manual(self):
        self.check_manual()

    def test_what_is_printed(self):
        self.outputs_of("a", {"y.0": [1, np.nan], "y.1": [2, 4]}, {"y.0": [1, 1]}, {"y.0": [5, 1]},
                        {"y.0": [7]})
        self.outputs_of("b", {"y.0": [1, np.nan], "y.1": [2, 5]}, {"y.0": [1, 1]}, {"y.0": [1, 1]},
                        {"y.0": [1, 1]}, {"y.0": [0, 0]})
        head = "elements  max abs  mean abs  max rel     cosine  SNR dB  differ  top-1  top-5  NaN  inf"
        problems = ("3/y: holds 1 values instead of 2: the reference holds 2 times as many bytes, as "
                    "with another batch size (-b) or values of a type written byte by byte\n",
                    "4/y: missing\n")
        end = "note: both are the same directory\n"
        found = self.run_companion("a", "b", "--worst", "2")[1]
        self.assertEqual(found, f"""\
output  type   {head}
y       float         6        4     0.667        4  0.7474093    -5.1   16.7%      -      -  1/1    0
y.1     float         2        1       0.5      0.2  0.9965458    14.6   50.0%      -      -    0    0

worst runs:
run  output  {head}  from
2    y              2        4         2        4  0.8320503    -9.0   50.0%      -      -    0    0
0    y.1            2        1       0.5      0.2  0.9965458    14.6   50.0%      -      -    0    0

{problems[0]}{problems[1]}
FAIL: 2 of 4 outputs beyond the limits; 2 could not be compared (3 runs; |difference| <= 1e-05 + \
1e-05 * |reference|)
""")
        found = self.run_companion("a", "b", "--worst", "0")[1]
        self.assertIn(f"\n\n{problems[0]}... and 1 more\n\nFAIL", found)
        shutil.rmtree(self.dir / "b/4")
        self.assertIn(f"\n\n{problems[0]}\nFAIL", self.run_companion("a", "b", "--worst", "0")[1])
        status, found, _ = self.run_companion("a", "a", "--common")
        self.assertEqual((status, found.partition("\n\n")[2]),
                         (0, "PASS: 4 runs, |difference| <= 1e-05 + 1e-05 * |reference|\n"))
        self.assertIn(end, found)

    def test_wrong_input(self):
        self.outputs_of("a", {"y": [1]})
        self.outputs_of("other", {"z": [1]})
        self.outputs_of("two", {"y": [1], "z": [1]})
        (self.dir / "empty").mkdir()
        self.write("notes/a.txt", "mine")
        log = log_text([], [("y", "[1, ]", 0, 4, 4)])
        self.write("zero/log.txt", log)
        self.write("failed/log.txt", log + "[ERROR] execute model failed\n")
        self.write("text", "mine")
        self.write("cut.npy", b"\x93NUMPY")
        for text, arguments in [
                ("required: OUT, REFERENCE", ()), ("required: REFERENCE", ("a",)),
                ("No such file or directory; name the dir", ("none", "a")),
                ("there is no none", ("a", "none")), ("directory is empty", ("a", "empty")),
                ("the run had no inferences", ("zero", "a")),
                ('failed with "execute model failed"', ("a", "failed")),
                ("no outputs in notes", ("notes", "a")), ("name the one above", ("a/0", "a")),
                ("neither a folder nor an .npy", ("a", "text")), ("cut short", ("a", "cut.npy")),
                ("different models, or a compiler", ("a", "other")),
                ("different models", ("a", "two", "--by-order")),
                ("no output q", ("a", "a", "--scores", "q")),
                ("--scores", ("a", "a", "--top1", "1")), ("no share", ("a", "a", "--top1", "2")),
                ("no tolerance", ("a", "a", "--atol", "-1")),
                ("is not NAME=half", ("a", "a", "--type", "y=float64")),
                ("cannot read the log none", ("a", "a", "--log", "none")),
                ("describes no model", ("a", "a", "--log", "text")),
                ("is not JSON", ("a", "a", "--inputs", "text")),
                ("did not make it", ("a", "a", "--json", "text"))]:
            with self.subTest(text=text):
                self.refused(text, *arguments)
        self.assertEqual((self.dir / "text").read_text(), "mine")


if __name__ == "__main__":
    unittest.main()
