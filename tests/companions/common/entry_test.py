"""How a companion ends, whatever happens in it."""

import errno
import os
import pathlib
import subprocess
import sys
import types
import unittest
from unittest import mock

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import COMPANIONS, CompanionTest, run_in_memory

from quilmrun_tools.common.errors import Unreadable


class Ends(unittest.TestCase):
    def test_exceptions(self):
        for raised, status, text in [
                (None, 0, ""), (Unreadable("no such\nthing"), 2, "quilmrun-x: no such?thing\n"),
                (OSError(errno.ENOSPC, "No space"), 2, "quilmrun-x: cannot write: No space\n"),
                (OSError(errno.EACCES, "Denied", "f"), 2, "quilmrun-x: cannot use f: Denied\n"),
                (MemoryError(), 2, "quilmrun-x: there is not enough memory\n"),
                (BrokenPipeError(), 2, ""), (KeyboardInterrupt(), 130, ""),
                (ModuleNotFoundError(name="numbers_"), 2, "Python's numbers_ is missing"),
                (KeyError("k"), 70, "a fault of the companion itself: KeyError: 'k'; please"),
                (RecursionError("deep"), 70, "a fault of the companion itself: RecursionError")]:
            program = types.ModuleType("quilmrun_tools.x.program")
            program.main = mock.Mock(side_effect=raised, return_value=0)
            with self.subTest(raised=raised), mock.patch.dict(
                    sys.modules, {"quilmrun_tools.x": program, program.__name__: program}):
                found, out, err = run_in_memory("quilmrun-x", ["a"])
                self.assertEqual((found, out, err.count("\n")), (status, "", int(bool(text))))
                self.assertIn(text, err)
                _, _, err = run_in_memory("quilmrun-x", ["--traceback"])
                self.assertEqual("Traceback" in err, bool(text))


class Streams(CompanionTest):
    name = "quilmrun-compare"

    def test_closed_and_full(self):
        self.write("a/0/y.0.1.bin", b"1234")
        command = f"{COMPANIONS}/{self.name} {self.dir}/a {self.dir}/a"
        for ending, status, text in [
                (">&-", 2, "cannot write: standard output is closed\n"), ("2>&-", 0, ""),
                (">&- 2>&-", 2, ""), ("<&-", 0, ""), (f"--json {self.dir}/j >&- 2>&-", 2, ""),
                ("> /dev/full", 2, "cannot write: No space left on device\n"),
                ("| true", 0, ""), (f"--json {self.dir}/none/j", 2, "name a file in a folder")]:
            with self.subTest(ending=ending):
                result = subprocess.run(["sh", "-c", f"{command} {ending}"], timeout=60, check=False,
                                        capture_output=True, text=True)
                self.assertEqual((result.returncode, result.stderr.count("\n")),
                                 (status, int(bool(text))), result.stderr)
                self.assertIn(text, result.stderr)
        self.assertFalse(os.path.exists(self.dir / "j"))


if __name__ == "__main__":
    unittest.main()
