"""The scripts leave alone what they did not make."""

import os
import pathlib
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
                (("digits", BUILD, "pictures"), "$D/pictures holds files that are not "),
                (("digits", BUILD, "."), "$D holds files that are not "),
                (("digits", BUILD, "link"), "$D/link is not a directory: "),
                (("digits", BUILD, "link/below"), "nothing can be written to $D/link/below\n"),
                (("digits", BUILD), "usage: "), (("digits", BUILD, ""), "usage: "),
                 (("digits", BUILD, "a", "b"), "usage: ")]:
            with self.subTest(arguments=arguments):
                status, errors = self.run_example(*arguments)
                self.assertEqual((status, errors.count("\n")), (2, 1))
                self.assertTrue(errors.startswith("run-example: " + line), errors)
                self.assertEqual(self.outputs("."), before)
                self.assertFalse((self.dir / "new").exists())

    def test_replaces_what_it_made_and_nothing_else(self):
        for _ in range(2):
            self.assertEqual(self.run_example("digits", BUILD, "out"), (0, ""))
            self.assertEqual(len(list((self.dir / "out/0").iterdir())), 2)
        self.write("out/0/notes", "of the user")
        before = self.outputs(".")
        status, errors = self.run_example("digits", BUILD, "out")
        self.assertEqual((status, errors), (2, "run-example: $D/out holds files that are not of an "
                                               "example: give a new or an empty directory\n"))
        self.assertEqual(self.outputs("."), before)


if __name__ == "__main__":
    unittest.main()
