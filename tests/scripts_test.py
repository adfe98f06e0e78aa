"""The scripts leave alone what they did not make."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import unittest

import tool

SOURCE = pathlib.Path(__file__).resolve().parents[1]
BUILD = os.path.dirname(os.path.abspath(tool.QUILMRUN))


class RunExample(tool.ToolTest):
    def run_example(self, *arguments):
        result = subprocess.run([SOURCE / "scripts/run-example", *arguments], cwd=self.dir,
                                capture_output=True, text=True, check=False)
        return result.returncode, self.mask(result.stderr)

    def test_refuses_without_touching_anything(self):
        self.write("pictures/cat", "purr")
        self.write("link", "a file")
        before = self.outputs(".")
        for arguments, line in [
                (("digts", BUILD, "new"), "there is no example digts, but "),
                (("../scripts", BUILD, "new"), "there is no example ../scripts, but "),
                (("", BUILD, "new"), "there is no example , but "),
                (("digits", "pictures", "new"), "there is no quilmrun in pictures\n"),
                (("digits", BUILD, "link"), "nothing can be written to link\n"),
                (("digits", BUILD, "link/below"), "nothing can be written to link/below\n"),
                (("digits", BUILD), "usage: "), (("digits", BUILD, ""), "usage: "),
                 (("digits", BUILD, "a", "b"), "usage: ")]:
            with self.subTest(arguments=arguments):
                status, errors = self.run_example(*arguments)
                self.assertEqual((status, errors.count("\n")), (2, 1))
                self.assertTrue(errors.startswith("run-example: " + line), errors)
                self.assertEqual(self.outputs("."), before)
                self.assertFalse((self.dir / "new").exists())

    def test_leaves_alone_what_is_there(self):
        self.write("victim", "a file")
        self.write("out/.made-by-run-example", "./1\0./../victim\0")
        self.write("out/notes", "of the user")
        os.symlink("nowhere", self.dir / "out/1")
        for number in (2, 3):  # the first by a process that is killed
            before = self.outputs(".")
            with subprocess.Popen([SOURCE / "scripts/run-example", "digits", BUILD, "out"],
                                  cwd=self.dir, stdout=subprocess.PIPE,
                                  start_new_session=True) as process:
                process.stdout.readline()
                if number == 2:
                    os.killpg(process.pid, signal.SIGKILL)
                process.stdout.read()
            after = self.outputs(".")
            self.assertEqual({name: after.get(name) for name in before}, before)
            self.assertTrue(all(name.startswith(f"out/{number}/") for name in
                                set(after) - set(before)))
        self.assertEqual(process.returncode, 0)
        self.assertEqual(len(list((self.dir / "out/3/19").iterdir())), 2)


class Building(tool.ToolTest):
    """Scripts in a directory of their own, with other programs in the place of npm and cmake."""

    def setUp(self):
        super().setUp()
        shutil.copytree(SOURCE / "scripts", self.dir / "scripts")

    def stand_in(self, program, script):
        os.chmod(self.write(f"bin/{program}", f"#!/bin/sh\n{script}\n"), 0o755)

    def bash(self, script, **environment):
        environment = {"PATH": f"{self.dir}/bin:{os.environ['PATH']}", **environment}
        result = subprocess.run(["bash", "-c", script], cwd=self.dir, env=environment, check=False,
                                capture_output=True, text=True, timeout=60)
        return result.returncode, result.stdout, result.stderr

    def test_builds_wait_for_each_other(self):
        own = ". scripts/building.sh; lock_build; "
        status, out, _ = self.bash(f"{own} mkfifo said; env -u QUILMRUN_BUILD_LOCK bash -c '{own}"
                                   "echo second' 9<&- > said & exec 8< said; read -r line <&8; "
                                   "echo $line; bash -c '. scripts/building.sh; lock_build'; "
                                   "echo first; unlock_build; cat <&8")
        self.assertEqual((status, self.mask(out)),
                         (0, "Waiting for another build in $D\nfirst\nsecond\n"))

    def test_takes_the_engine_that_is_named(self):
        self.stand_in("cmake", 'echo "$@"')
        for named, options in (("/some/engine.so", " -DQUILMRUN_ONNXRUNTIME=/some/engine.so"), ("", "")):
            self.bash("mkdir -p build; . scripts/building.sh; configure release",
                      QUILMRUN_ONNXRUNTIME=named)
            self.assertEqual((self.dir / "build/configured.release").read_text(),
                             f"--preset release --no-warn-unused-cli{options}\n")

    def test_says_why_the_engine_cannot_be_fetched(self):
        log = "\nnpm ERR! A complete log of this run can be found in:\nnpm ERR!     /root/.npm/1.log"
        for said, reason in [
                ("npm ERR! code ENOSPC\nnpm ERR! syscall write\nnpm ERR! errno -28\n"
                 "npm ERR! nospc ENOSPC: no space left on device, write" + log,
                 "nospc ENOSPC: no space left on device, write"),
                ("npm error code E404\nnpm error 404 Not Found" + log, "404 Not Found"),
                ("", "it gives no reason")]:
            self.stand_in("npm", f"cat >&2 << 'END'\n{said}\nEND\nexit 1")
            status, _, errors = self.bash("scripts/fetch-engine")
            self.assertEqual((status, errors.count("\n")), (1, 1))
            self.assertTrue(errors.endswith(f": {reason}\n"), errors)
            self.assertEqual(list((self.dir / "build/engine").iterdir()), [])

    def test_the_demo_refuses_more_than_one_word(self):
        for words in ("digits ecg", "''", "numbers"):
            self.assertEqual(self.bash(f"scripts/demo {words}")[0], 2)


class Readme(tool.ToolTest):
    def test_its_commands_work_as_they_stand(self):
        text = (SOURCE / "README.md").read_text()
        block = re.search(r"^## Companions\n.*?^```\n(.*?)^```$", text, re.M | re.S)[1]
        (self.dir / "build").mkdir()
        for name, target in (("build/release", BUILD), ("companions", SOURCE / "companions"),
                             ("examples", SOURCE / "examples")):
            os.symlink(target, self.dir / name)
        result = subprocess.run(["bash", "-euo", "pipefail", "-c", block], cwd=self.dir, check=False,
                                capture_output=True, text=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("\nPASS: 40 runs, ", result.stdout)
        self.assertIn("\ntop-1: 100.00% ", result.stdout)
        self.assertTrue((self.dir / "build/first/run/report.html").stat().st_size > 100000)


class Arrows(tool.ToolTest):
    def test_finds_what_points_up(self):
        room = "companions/quilmrun_tools"
        for name, text in [
                ("input/list.cpp", '#include "input/list.h"\n#include "model/model.h"\n'),
                ("runtime/handles.h", '#include "runtime/host/state.h"\n'),
                ("app/main.cpp", '#include "tests/help.h"\n#include "output/dump.h"\n'),
                ("bench/CMakeLists.txt", "add_library(engine ../tests/identity_engine.cpp)\n"),
                (f"{room}/__init__.py", ""), (f"{room}/cli.py", ""),
                (f"{room}/common/parser.py", "from quilmrun_tools import __version__, artifacts\n"),
                (f"{room}/artifacts/record.py", "from ..common import parser\nclass Run: pass\n"),
                (f"{room}/report/page.py", "def f():\n    import quilmrun_tools.compare.program\n"
                                           "class Run: pass\n"),
                (f"{room}/report/run.py", "import_module('quilmrun_tools.inputs.program')\n"
                                          "from quilmrun_tools.artifacts.record import Run\n")]:
            self.write(name, text)
        found = subprocess.run([SOURCE / "scripts/arrows.py", self.dir], check=False, text=True,
                               capture_output=True)
        self.assertEqual((found.returncode, found.stdout), (1, f"""\
app/main.cpp:1: app must not include tests
input/list.cpp:2: input must not include model
runtime/handles.h:1: runtime must not include runtime/host
bench/CMakeLists.txt:1: only tests may compile what is in tests
{room}/cli.py: a module outside the rooms
{room}/common/parser.py:1: common must not import artifacts
{room}/report/page.py:2: report must not import compare
{room}/report/run.py:1: report must not import inputs
{room}/report/page.py:3: a second class Run, beside that of {room}/artifacts/record.py:2
"""))


if __name__ == "__main__":
    unittest.main()
