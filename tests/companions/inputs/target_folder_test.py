"""The folder that is written: old or new, whole, and never with what others made in it."""

import fcntl
import json
import os
import signal
import unittest
from unittest import mock

from prepared import UINT8, InputsTest

from companion import log_text
from quilmrun_tools.artifacts import prepared_inputs
from quilmrun_tools.inputs import prepare, target_folder


def killed_before(point):
    """From now on, this process is killed right before its `point`-th change of a folder."""
    left = [point]

    def counted(function):
        def call(*arguments, **options):
            if not left[0]:
                os.kill(os.getpid(), signal.SIGKILL)
            left[0] -= 1
            return function(*arguments, **options)
        return call
    for module, names in ((os, ("rename", "unlink", "rmdir", "mkdir", "open")),
                          (target_folder, ("exchange",)),
                          (prepared_inputs.ManifestWriter, ("add", "__exit__"))):
        for name in names:
            setattr(module, name, counted(getattr(module, name)))


class TargetFolder(InputsTest):
    def setUp(self):
        super().setUp()
        self.prepare([1, 2], UINT8, "--random", 3)
        self.before = self.outputs("p")
        self.command = "--model-log", "log.txt", "-o", "p", "--random", "2", "--seed", "1"

    def test_replaced(self):
        before = self.outputs("p")
        status, _, errors = self.run_companion(*self.command)
        self.assertEqual((status, errors), (0, ""))
        self.assertEqual(sorted(os.listdir(self.dir / "p")),
                         ["00000_random.bin", "00001_random.bin", "inputs.json", "list.txt"])
        self.assertNotEqual(self.outputs("p")["00000_random.bin"], before["00000_random.bin"])
        self.assertEqual(sorted(os.listdir(self.dir)), ["log.txt", "out", "p"])
        self.assertEqual(os.stat(self.dir / "p").st_mode & 0o777, 0o777 & ~self.umask())

    @staticmethod
    def umask():
        value = os.umask(0)
        os.umask(value)
        return value

    def test_empty(self):
        """An empty folder is taken, and so is one of several inputs, whose list names them."""
        (self.dir / "new").mkdir()
        status, _, _ = self.run_companion(*self.command[:2], "--random", "1", "-o", "deep/er/new")
        self.assertEqual((status, len(os.listdir(self.dir / "deep/er/new"))), (0, 3))
        self.write("two.txt", log_text([self.model_log([1, 2], UINT8, name) for name in "ab"]))
        for seed in (1, 2):
            status, _, errors = self.run_companion("--model-log", "two.txt", "-o", "new", "--random",
                                                   "1", "--seed", seed)
            self.assertEqual((status, errors), (0, ""))
        self.assertEqual((self.dir / "new/list.txt").read_text(),
                         "a:00000_a_random.bin\nb:00000_b_random.bin\n")

    def test_what_others_made_or_changed(self):
        for name, content, text in [
                ("p/notes", "mine", "holds notes that quilmrun-inputs did not make"),
                ("p/00001_random.bin", b"\1\2", "00001_random.bin that quilmrun-inputs made, but"),
                ("p/list.txt", "00000_random.bin\n", "list.txt that quilmrun-inputs made, but"),
                ("p/inputs.json", "{}", "was not written by quilmrun-inputs"),
                ("full/notes", "mine", "holds files that quilmrun-inputs did not make")]:
            with self.subTest(name=name):
                folder = name.partition("/")[0]
                before = self.outputs(folder)
                self.write(name, content)
                changed = self.outputs(folder)
                self.refused(text, "-o", folder, *self.command[:2], *self.command[4:])
                self.assertEqual(self.outputs(folder), changed)
                (self.dir / name).unlink()
                for old, value in before.items():
                    self.write(f"{folder}/{old}", value)
        self.refused("is not a folder", "-o", "log.txt", *self.command[:2], "--random", "1")
        for name, text in ((".", "the folder that you are in"), ("..", "you are in, or above it"),
                           ("/proc", "where a file system is mounted")):
            self.refused(text, "-o", name, *self.command[:2], "--random", "1")
        self.assertEqual(sorted(os.listdir(self.dir)), ["full", "log.txt", "out", "p"])

    def test_killed_at_any_point(self):
        old, seen = self.outputs("p"), set()
        for point in range(100):
            child = os.fork()
            if child == 0:
                killed_before(point)
                os._exit(self.run_companion(*self.command)[0])
            status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
            now = self.outputs("p")
            listed = {file["file"] for file in json.loads(now["inputs.json"])["files"]}
            self.assertEqual(listed | {"inputs.json", "list.txt"}, {*now}, point)
            self.assertEqual(now["list.txt"].decode().split(), sorted(listed))
            seen.add(now == old)
            if status == 0:
                break
            self.assertEqual(status, -signal.SIGKILL)
        self.assertEqual((status, seen), (0, {True, False}))
        # What the last one that was killed left behind is gone.
        self.assertEqual(sorted(os.listdir(self.dir)), ["log.txt", "out", "p"])

    def test_leftovers(self):
        """Those of a running companion stay, as does what only looks like one."""
        for name in (".p.quilmrun-inputs-00000000", ".p.quilmrun-inputs-11111111",
                     ".p.quilmrun-inputs-22222222"):
            self.write(f"{name}/00000_a.bin", "x")
        self.write(".p.quilmrun-inputs-11111111/notes", "mine")
        (self.dir / ".p.quilmrun-inputs-33333333").symlink_to(self.dir / "out")
        running = os.open(self.dir / ".p.quilmrun-inputs-22222222", os.O_RDONLY)
        fcntl.flock(running, fcntl.LOCK_EX)
        self.assertEqual(self.run_companion(*self.command)[0], 0)
        os.close(running)
        self.assertEqual(sorted(os.listdir(self.dir)), [
            ".p.quilmrun-inputs-11111111", ".p.quilmrun-inputs-22222222",
            ".p.quilmrun-inputs-33333333", "log.txt", "out", "p"])

    def test_changed_meanwhile(self):
        """A file that the user saves while the inputs are prepared stops the replacement."""
        whole = prepare.write
        for name in ("notes", "00001_random.bin"):
            def write(*arguments, name=name):
                self.write(f"p/{name}", "mine")
                return whole(*arguments)
            with mock.patch.object(prepare, "write", write):
                self.refused("or which were changed meanwhile", *self.command)
            self.assertEqual((self.dir / "p" / name).read_text(), "mine")
            self.assertEqual(sorted(os.listdir(self.dir)), ["log.txt", "out", "p"])
            (self.dir / "p" / name).unlink()
            self.write("p/00001_random.bin", self.before["00001_random.bin"])

    def test_exchange(self):
        with self.assertRaises(FileNotFoundError):
            target_folder.exchange(self.dir / "p", self.dir / "none")
        refused = mock.Mock(side_effect=OSError(22, "Invalid argument"))
        self.enterContext(mock.patch.object(target_folder, "exchange", refused))
        before = self.outputs("p")
        self.refused("in the place of p: Invalid argument; name a new folder", *self.command)
        self.assertEqual((self.outputs("p"), sorted(os.listdir(self.dir))),
                         (before, ["log.txt", "out", "p"]))


if __name__ == "__main__":
    unittest.main()
