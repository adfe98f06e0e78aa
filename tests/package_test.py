"""The packages in build/packages: what is in them, what they depend on, and that they run."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest
from unittest import mock

import tool
from models import HostRuntimeTest, identity

SOURCE = pathlib.Path(__file__).resolve().parents[1]
VERSION = os.environ["VERSION"]
PC, BOARD = (SOURCE / f"build/packages/quilmrun_{VERSION}_{architecture}.deb"
             for architecture in ("amd64", "arm64"))
ARCHIVE = SOURCE / f"build/packages/quilmrun-{VERSION}-arm64.tar.gz"


def run(*command):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE,
                          text=True).stdout


def files(directory):
    return sorted(str(path.relative_to(directory)) for path in directory.rglob("*")
                  if not path.is_dir())


class Packages(HostRuntimeTest):
    def unpack(self, package):
        root = self.dir / "root"
        run("dpkg", "-x", package, root)
        return root / "usr"

    def check_manual(self, prefix):
        page = prefix / "share/man/man1/quilmrun.1"
        self.assertIn(f".Os quilmrun {VERSION}\n", page.read_text())
        self.assertEqual(run("mandoc", "-T", "lint", "-W", "warning", page), "")

    def check_board(self, prefix):
        self.assertEqual(files(prefix), ["bin/quilmrun", "share/doc/quilmrun/README",
                                         "share/man/man1/quilmrun.1"])
        self.check_manual(prefix)
        self.assertRegex(run(SOURCE / "scripts/check-board", prefix / "bin/quilmrun"),
                         r"newest libc version needed:\nGLIBC_2\.1\d\n$")
        self.assertNotEqual(subprocess.run([SOURCE / "scripts/check-board", os.environ["QUILMRUN_NATIVE"]],
                                           check=False, capture_output=True).returncode, 0)
        # As the board's own library would be found, below the directory that was unpacked.
        (prefix / "lib").mkdir()
        shutil.copy(os.environ["HOST_RUNTIME"], prefix / "lib")
        emulated = self.write("quilmrun", f"#!/bin/sh\nexec {os.environ['EMULATOR']} "
                                          f"{prefix}/bin/quilmrun \"$@\"\n")
        os.chmod(emulated, 0o755)
        self.write("x", bytes(range(8)))
        with mock.patch.object(tool, "QUILMRUN", emulated):
            status, out, err = self.run_model(identity([1, 2]), "x")
        self.assertEqual((status, err), (0, ""))
        self.assertIn("[INFO]  execute sample success\n", out)

    def test_board_package(self):
        self.assertRegex(run("dpkg-deb", "-f", BOARD, "Version", "Architecture", "Depends"),
                         rf"^Version: {VERSION}\nArchitecture: arm64\nDepends: libc6 \(>= [\d.]+\)\n$")
        self.check_board(self.unpack(BOARD))

    def test_board_archive(self):
        run("tar", "-xzf", ARCHIVE, "-C", self.dir)
        self.check_board(self.dir / f"quilmrun-{VERSION}-arm64")

    def test_pc_package_runs_the_digits_example(self):
        fields = run("dpkg-deb", "-f", PC, "Version", "Architecture", "Depends")
        self.assertIn(f"Version: {VERSION}\nArchitecture: amd64\n", fields)
        self.assertEqual({re.sub(r"[\d.]*$", "", name) for name in
                          re.findall(r"([a-z][\w.+-]*)(?: \([^)]*\))?(?:, |\n)",
                                     fields.partition("Depends: ")[2])},
                         {"libc", "libgcc-s", "libopencv-core", "libopencv-dnn", "libstdc++"})
        prefix = self.unpack(PC)
        self.check_manual(prefix)
        self.assertIn(f"libquilm.so => {prefix}/bin/../lib/libquilm.so",
                      run("ldd", prefix / "bin/quilmrun"))
        self.assertEqual(len(re.findall(r"^\w+ \w \w+$", run("nm", "-D", "--defined-only",
                                                           prefix / "bin/quilmrun"), re.M)), 6)
        shown = run(prefix / "share/quilmrun/scripts/run-example", "digits", prefix / "bin",
                    self.dir / "digits")
        self.assertIn("[INFO]  execute sample success\n", shown)
        self.assertIn("\n20 of 20 right\n", shown)
        # And byte for byte what the build tree's own executable makes of the same files.
        native = pathlib.Path(os.environ["QUILMRUN_NATIVE"]).parent
        run(SOURCE / "scripts/run-example", "digits", native, self.dir / "native")
        compared = run(prefix / "share/quilmrun/scripts/compare-outputs", self.dir / "digits",
                       self.dir / "native")
        self.assertEqual(compared.count("10 values, equal\n"), 20)
        self.assertNotEqual(subprocess.run(
            [prefix / "share/quilmrun/scripts/compare-outputs", self.dir / "digits/0",
             self.dir / "native"], check=False, stderr=subprocess.DEVNULL).returncode, 0)


if __name__ == "__main__":
    unittest.main()
