"""Runs a companion of the source tree on files of the test's own."""

import importlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import traceback

from models import buffers, info_block
from tool import ToolTest

COMPANIONS = pathlib.Path(__file__).resolve().parents[1] / "companions"
sys.path.append(str(COMPANIONS))


def log_text(inputs, outputs=(), executed=0, files=()):
    """What quilmrun prints of a model, and of that many inferences, with one input file each."""
    return info_block([*inputs, *buffers()], outputs) + "".join(
        f"[INFO]  start to process file:{file}\n" for file in files) + \
        "[INFO]  dump data success\n" * executed


def module_of(companion):
    """The room of a companion."""
    return companion.rpartition("-")[2]


def status_of(command):
    """Runs a companion to its end in this process, which only has to exit after it."""
    signal.alarm(120)
    sys.argv = command
    try:
        importlib.import_module("quilmrun_tools.common.entry").run(module_of(command[0]))
    except SystemExit as end:
        return end.code
    except BaseException:  # pylint: disable=broad-exception-caught
        traceback.print_exc()
        return 1
    finally:
        sys.stdout.flush()
        sys.stderr.flush()


class CompanionTest(ToolTest):
    """A test with a directory of its own, in which the companions run."""

    name = ""

    def run_companion(self, *arguments, name=None):
        """(status, standard output, standard error) of this or another companion. It runs in a copy
        of this process, where Python and its packages, most of a short run's time, are loaded
        already."""
        command = [str(COMPANIONS / (name or self.name)), *map(str, arguments)]
        importlib.import_module(f"quilmrun_tools.{module_of(command[0])}.program")
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as errors:
            sys.stdout.flush()
            sys.stderr.flush()
            child = os.fork()
            if child == 0:
                os.dup2(out.fileno(), 1)
                os.dup2(errors.fileno(), 2)
                os.chdir(self.dir)
                os._exit(status_of(command))
            status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
            said = [file.seek(0) or file.read().decode() for file in (out, errors)]
        return status, *said

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
