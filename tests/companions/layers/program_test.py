"""quilmrun-layers: the command line, and what it refuses."""

import pathlib
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import CompanionTest


class Refusals(CompanionTest):
    name = "quilmrun-layers"

    def test_manual(self):
        self.check_manual()

    def test_wrong_input(self):
        self.write("text.onnx", "no model")
        self.write("probe/layers.json", "{}")
        for text, arguments in [
                ("probe|find", ()), ("invalid choice", ("seek",)), ("MODEL, -o", ("probe",)),
                ("no ONNX model", ("probe", "text.onnx", "-o", "p")),
                ("No such file", ("probe", "none.onnx", "-o", "p")),
                ("not a number from 1", ("probe", "text.onnx", "-o", "p", "--at-most", "0")),
                ("PROBE, BOARD, PC", ("find",)),
                ("was not written by quilmrun-layers probe", ("find", "probe", "b", "c")),
                ("no number of decibels", ("find", "probe", "b", "c", "--snr", "inf")),
                ("no similarity", ("find", "probe", "b", "c", "--cosine", "2"))]:
            with self.subTest(text):
                self.refused(text, *arguments)


if __name__ == "__main__":
    unittest.main()
