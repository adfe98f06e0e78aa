"""The scripts leave alone what they did not make."""

import os
import pathlib
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


if __name__ == "__main__":
    unittest.main()
