"""Runs a companion of the source tree on files of the test's own."""

import io
import os
import pathlib
import re
import signal
import subprocess
import sys

from models import buffers, info_block
from tool import ToolTest

COMPANIONS = pathlib.Path(__file__).resolve().parents[1] / "companions"
sys.path.append(str(COMPANIONS))

from quilmrun_tools.common import entry
from quilmrun_tools.common.streams import Streams


def log_text(inputs, outputs=(), executed=0, files=()):
    """What quilmrun prints of a model, and of that many inferences, with one input file each."""
    return info_block([*inputs, *buffers()], outputs) + "".join(
        f"[INFO]  start to process file:{file}\n" for file in files) + \
        "[INFO]  dump data success\n" * executed


def run_in_memory(companion, arguments):
    """(status, standard output, standard error) of a companion, run in this process."""
    out, err = io.StringIO(), io.StringIO()
    signal.alarm(120)
    try:
        status = entry.status_of(companion.rpartition("-")[2], [*map(str, arguments)],
                                 Streams(out, err, companion))
    finally:
        signal.alarm(0)
    return int(status), out.getvalue(), err.getvalue()


class CompanionTest(ToolTest):
    """A test with a directory of its own, in which the companions run."""

    name = ""

    def run_companion(self, *arguments, name=None):
        """(status, standard output, standard error) of this or another companion, in the test's
        directory."""
        before = os.getcwd()
        os.chdir(self.dir)
        try:
            return run_in_memory(name or self.name, arguments)
        finally:
            os.chdir(before)

    def run_executable(self, *arguments, within=()):
        """The same of the executable, as users start it; by the command `within` if any."""
        result = subprocess.run([*within, COMPANIONS / self.name, *map(str, arguments)], cwd=self.dir,
                                check=False, capture_output=True, text=True, timeout=120)
        return result.returncode, result.stdout, result.stderr

    def check_manual(self):
        """The manual page has the options that --help names, and no others."""
        status, shown, _ = self.run_executable("--help")
        self.assertEqual(status, 0)
        page = (COMPANIONS.parent / f"docs/{self.name}.1.in").read_text()
        self.assertEqual(set(re.findall(r"Fl -([\w-]+)", page)),
                         set(re.findall(r"^ +(?:-\w(?: \w+)?, )?--([\w-]+)", shown, re.M)))

    def refused(self, text, *arguments, within=()):
        """Status 2, and nothing but one line that holds `text`."""
        status, out, errors = self.run_executable(*arguments, within=within) if within else \
            self.run_companion(*arguments)
        self.assertEqual((status, out, errors.count("\n")), (2, "", 1), errors)
        self.assertTrue(errors.startswith(f"{self.name}: "), errors)
        self.assertIn(text, errors)
