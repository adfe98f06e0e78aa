"""Runs a companion of the source tree on files of the test's own."""

import pathlib
import re
import subprocess

from models import buffers, info_block
from tool import ToolTest

COMPANIONS = pathlib.Path(__file__).resolve().parents[1] / "companions"


def log_text(inputs, outputs=(), executed=0, files=()):
    """What quilmrun prints of a model, and of that many inferences, with one input file each."""
    return info_block([*inputs, *buffers()], outputs) + "".join(
        f"[INFO]  start to process file:{file}\n" for file in files) + \
        "[INFO]  dump data success\n" * executed


class CompanionTest(ToolTest):
    """A test with a directory of its own, in which the companions run."""

    name = ""

    def run_companion(self, *arguments):
        """(status, standard output, standard error)"""
        result = subprocess.run([COMPANIONS / self.name, *map(str, arguments)], cwd=self.dir,
                                check=False, capture_output=True, text=True, timeout=120)
        return result.returncode, result.stdout, result.stderr

    def check_manual(self):
        """The manual page has the options that --help names, and no others."""
        status, shown, _ = self.run_companion("--help")
        self.assertEqual(status, 0)
        page = (COMPANIONS.parent / f"docs/{self.name}.1.in").read_text()
        self.assertEqual(set(re.findall(r"Fl -([\w-]+)", page)),
                         set(re.findall(r"^ +(?:-\w(?: \w+)?, )?--([\w-]+)", shown, re.M)))

    def refused(self, text, *arguments):
        """Status 2, and nothing but one line that holds `text`."""
        status, out, errors = self.run_companion(*arguments)
        self.assertEqual((status, out, errors.count("\n")), (2, "", 1), errors)
        self.assertTrue(errors.startswith(f"{self.name}: "), errors)
        self.assertIn(text, errors)
