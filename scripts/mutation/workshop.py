"""Copies of the sources, in which faults are put, built and tested."""

import hashlib
import json
import os
import re
import subprocess
from typing import Iterable, Optional

from mutation.faults import ROOT, Fault, fail

HERE = ROOT / "build/mutate"  # all that is made here: nothing else is changed
# Not about the sources that faults are put into, or about speed.
OTHER_TESTS = re.compile(r"remove_examples|scripts_test|bench_works|peers_work|"
                         r"package.*|check_board")
# Any build that the tests pass on will do: this one takes the least time.
OPTIONS = ("-DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON",
           "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG", "-DCMAKE_C_FLAGS_RELEASE=-O1 -DNDEBUG")


def tracked() -> list[str]:
    """The names of the files that are under version control, and those that will be."""
    names = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                           cwd=ROOT, check=True, capture_output=True, text=True).stdout
    return sorted(name for name in names.split("\0") if name and (ROOT / name).is_file())


def checksum() -> str:
    """That of all sources."""
    total = hashlib.sha256()
    for name in tracked():
        total.update(f"{name}\0".encode() + hashlib.sha256((ROOT / name).read_bytes()).digest())
    return total.hexdigest()


class Workshop:
    """One copy with its build. Several can be at work at the same time."""

    def __init__(self, name: str, options: Iterable[str] = OPTIONS) -> None:
        self.root = HERE / name
        self.build = self.root / "build/release"
        self.options = list(options)
        self.said = ""  # by the last command
        self.environment = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
        self.environment.setdefault("QUILMRUN_ONNXRUNTIME",
                                    str(ROOT / "build/engine/libonnxruntime.so.1"))

    def run(self, *command: str, timeout: Optional[float] = None, **environment: str) -> str:
        """What the command printed; empty when it failed, or took longer."""
        with subprocess.Popen(command, cwd=self.root, env=dict(self.environment, **environment),
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace") as process:
            try:
                said = process.communicate(timeout=timeout)[0]
            except subprocess.TimeoutExpired:
                process.kill()
                return ""
        self.said = said
        return said or "nothing" if process.returncode == 0 else ""

    def prepare(self) -> None:
        """Brings the copy to the state of the sources and builds it. What did not change keeps its
        time, so that only the rest is compiled again."""
        self.root.mkdir(parents=True, exist_ok=True)
        names = tracked()
        for path in [path for path in self.root.rglob("*") if path.is_file()]:
            name = str(path.relative_to(self.root))
            if not name.startswith("build/") and name not in names:
                path.unlink()
        for name in names:
            source, target = ROOT / name, self.root / name
            if not target.is_file() or target.read_bytes() != source.read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(source.read_bytes())
            target.chmod(source.stat().st_mode)
        if not self.run("cmake", "--preset", "release", *self.options) or not self.make():
            fail(f"{self.root} does not build:\n{self.said[-3000:]}")

    def make(self) -> bool:
        return bool(self.run("cmake", "--build", "--preset", "release", "-j", "1"))

    def tests(self) -> list[str]:
        listed = json.loads(self.run("ctest", "--preset", "release", "--show-only=json-v1"))
        return [test["name"] for test in listed["tests"] if not OTHER_TESTS.fullmatch(test["name"])]

    def test(self, name: str, timeout: int, **environment: str) -> bool:
        """True when the test passes."""
        return bool(self.run(
            "ctest", "--test-dir", str(self.build), "--no-tests=error", "--timeout", str(timeout),
            "-R", f"^{name}$", timeout=timeout + 60, **environment))

    def builds(self, fault: Fault) -> bool:
        """Whether a copy with the fault still compiles, or in Python can be imported."""
        if not fault.file.endswith(".py"):
            return self.make()
        module = fault.file.removeprefix("companions/").removesuffix(".py").replace("/", ".")
        module = module.removesuffix(".__init__")
        script = f"import sys; sys.path.insert(0, 'companions'); import {module}"
        return bool(self.run("/usr/bin/python3", "-c", script, timeout=60))

    def outcome(self, fault: Fault, tests: Iterable[tuple[str, int]]) -> str:
        """What comes of the fault: "caught", "MISSED" or "does not build"; `tests` are names, each
        with the seconds that it may take."""
        path = self.root / fault.file
        source = path.read_text()
        path.write_text(fault.apply(source))
        try:
            if not self.builds(fault):
                return "does not build"
            return "MISSED" if all(self.test(*test) for test in tests) else "caught"
        finally:
            path.write_text(source)
