"""The packages in build/packages: what is in them, what they depend on, and that they run."""

import gzip
import json
import os
import pathlib
import re
import shutil
import subprocess
import unittest
from unittest import mock

import tool
from models import HostRuntimeTest, identity
from scripted import FAILURE, PLAIN, ScriptedRuntimeTest

SOURCE = pathlib.Path(__file__).resolve().parents[1]
VERSION = os.environ["VERSION"]
PACKAGES = SOURCE / "build/packages"
TOOL, HOST_RUNTIME, BOARD = (PACKAGES / f"{name}_{VERSION}_{architecture}.deb"
                             for name, architecture in [("quilmrun", "amd64"),
                                                        ("quilmrun-host-runtime", "amd64"),
                                                        ("quilmrun", "arm64")])
ARCHIVE = PACKAGES / f"quilmrun-{VERSION}-arm64.tar.gz"


def run(*command):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE,
                          text=True).stdout


def depends(package):
    """What a package depends on, without versions, except for libc's."""
    text = run("dpkg-deb", "-f", package, "Depends")
    return {re.sub(r"[\d.]*$", "", name) for name in
            re.findall(r"([a-z][\w.+-]*)(?::any)?(?: \([^)]*\))?(?:, |\n)", text)}


class Packages(HostRuntimeTest, ScriptedRuntimeTest):
    def unpack(self, *packages):
        root = self.dir / "root"
        for package in packages:
            self.assertRegex(run("dpkg-deb", "-f", package, "Version", "Maintainer"),
                             rf"^Version: {VERSION}\nMaintainer: [\w ]+ <\w+@[\w.-]+\.\w+>\n$")
            run("dpkg", "-x", package, root)
        return root / "usr"

    def check_documentation(self, prefix):
        """A manual for every program, a licence for every package, and no link without an end."""
        for program in (prefix / "bin").iterdir():
            page = gzip.decompress((prefix / f"share/man/man1/{program.name}.1.gz").read_bytes())
            self.assertIn(VERSION, page.decode())
            lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning"], input=page, check=False,
                                  stdout=subprocess.PIPE)
            self.assertEqual(lint.stdout.decode(), "")
            completion = prefix / "share/bash-completion/completions" / program.name
            self.assertIn(f" {program.name}\n", completion.read_text())
        for package in (prefix / "share/doc").iterdir():
            self.assertTrue((package / "copyright").read_text().startswith("Format: "))
        for page in prefix.rglob("*.md"):
            for target in re.findall(r"\]\(([^):#]+)[)#]", page.read_text()):
                self.assertTrue((page.parent / target).exists(), f"{page}: {target}")

    def check_board(self, prefix):
        self.check_documentation(prefix)
        binaries = [path for path in prefix.rglob("*") if path.is_file() and
                    path.read_bytes()[:4] == b"\x7fELF"]
        self.assertIn(prefix / "bin/quilmrun", binaries)
        self.assertRegex(run(SOURCE / "scripts/check-board", *binaries),
                         r"newest libc version needed:\nGLIBC_2\.[12]\d\n$")
        # As the board's own library would be found, below the directory that was unpacked.
        (prefix / "lib").mkdir(exist_ok=True)
        shutil.copy(os.environ["HOST_RUNTIME"], prefix / "lib")
        emulated = self.write("quilmrun", f"#!/bin/sh\nexec {os.environ['EMULATOR']} "
                                          f"{prefix}/bin/quilmrun \"$@\"\n")
        os.chmod(emulated, 0o755)
        self.write("x", bytes(range(8)))
        with mock.patch.object(tool, "QUILMRUN", emulated):
            status, out, err = self.run_model(identity([1, 2]), "x")
            self.assertEqual((status, err), (0, ""))
            self.assertIn("[INFO]  execute sample success\n", out)
            self.check_recorder(prefix)

    def check_recorder(self, prefix):
        convert = prefix / "lib/quilmrun/record/convert"
        convert.rename(convert.with_suffix(".arm64"))
        self.write(convert, f"#!/bin/sh\nexec {os.environ['EMULATOR']} {convert}.arm64 \"$@\"\n")
        os.chmod(convert, 0o755)
        status, _, table = self.run_model(identity([1, 2]), "x", within=(
            prefix / "bin/quilmrun-record", "-o", self.dir / "record.json"))
        self.assertEqual(status, 0, table)
        record = json.loads((self.dir / "record.json").read_text())["otherData"]
        self.assertEqual((record["library"], record["complete"]),
                         (f"{prefix}/bin/../lib/libquilm.so", True))

    def test_board_package(self):
        self.assertEqual(depends(BOARD), {"libc"})
        self.check_board(self.unpack(BOARD))

    def test_hardening_and_recommendations(self):
        code = run("aarch64-linux-gnu-objdump", "-d", self.unpack(BOARD) / "bin/quilmrun")
        for mark in ("\tbti\tc", "_chk@plt>:"):  # of branch protection and of FORTIFY
            self.assertTrue(mark in code, mark)
        for package in (BOARD, TOOL):
            self.assertIn("bash-completion", run("dpkg-deb", "-f", package, "Recommends"))

    def test_board_archive(self):
        run("tar", "-xzf", ARCHIVE, "-C", self.dir)
        self.check_board(self.dir / f"quilmrun-{VERSION}-arm64")

    def test_old_libc(self):
        """The three binaries of the board package on glibc 2.17, with and without an exception."""
        prefix = self.unpack(BOARD)
        emulator = f"{os.environ['EMULATOR']} -L {SOURCE}/build/old_libc"
        for program in ("bin/quilmrun", "lib/quilmrun/record/convert"):
            (prefix / program).rename(prefix / f"{program}.arm64")
            self.write(prefix / program, f"#!/bin/sh\nexec {emulator} {prefix}/{program}.arm64 \"$@\"\n")
            os.chmod(prefix / program, 0o755)
        with mock.patch.object(tool, "QUILMRUN", prefix / "bin/quilmrun"):
            self.assertEqual(*(self.run_scripted(PLAIN, within=within, complaint=".*")
                               for within in ((), (prefix / "bin/quilmrun-record",))))
            record = json.loads((self.dir / "record.json").read_text())["otherData"]
            self.assertEqual((record["statistics"]["warm_up"]["count"], record["complete"]), (1, True))
            for within in (), (prefix / "bin/quilmrun-record", "-q"):
                self.check(1, "[ERROR] unexpected exception: broken\n" + FAILURE,
                           "throw quilm_mdl_execute 1 broken\n" + PLAIN, within=within)

    def test_what_asks_too_much_of_a_board_is_refused(self):
        check = subprocess.run([SOURCE / "scripts/check-board", os.environ["QUILMRUN_NATIVE"]],
                               check=False, capture_output=True)
        self.assertEqual(check.returncode, 1)

    def test_pc_packages_run_the_digits_example(self):
        self.assertEqual(depends(TOOL), {"libc", "libgcc-s", "libstdc++", "python"})
        self.assertLessEqual({"libc", "libstdc++"}, depends(HOST_RUNTIME))
        prefix = self.unpack(TOOL, HOST_RUNTIME)
        self.check_documentation(prefix)
        self.assertIn(f"libquilm.so => {prefix}/bin/../lib/libquilm.so",
                      run("ldd", prefix / "bin/quilmrun"))
        shown = run(prefix / "share/quilmrun/scripts/run-example", "digits", prefix / "bin",
                    self.dir / "digits")
        self.assertIn("[INFO]  execute sample success\n", shown)
        self.assertIn("\n20 of 20 right\n", shown)
        for program in (prefix / "bin").glob("quilmrun-*"):
            self.assertIn(program.name, run(program, "--help"))


if __name__ == "__main__":
    unittest.main()
