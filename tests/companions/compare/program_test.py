"""quilmrun-compare: its command line, and what it refuses."""

import pathlib
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import CompareTest


class Refusals(CompareTest):
    def test_manual(self):
        self.check_manual()

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
