"""Which tests run which lines: only these can catch a fault there."""

import json
import shutil
import subprocess
import time
from collections import defaultdict
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Callable, Iterable

from mutation.faults import Fault, fail
from mutation.workshop import HERE, Workshop, checksum

_COVERAGE = ("-DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON", "-DCMAKE_BUILD_TYPE=Coverage",
             "-DCMAKE_CXX_FLAGS_COVERAGE=-O0 --coverage", "-DCMAKE_C_FLAGS_COVERAGE=-O0 --coverage")
_PYTHON = Path(__file__).resolve().parent / "trace"

Lines = dict[str, set[int]]  # numbers of lines by file


@dataclass
class Reach:
    """What one run of all tests showed."""

    seconds: dict[str, float] = field(default_factory=dict)  # of each test without any fault
    # Of each file and line that some test ran, the tests that did.
    ran: dict[str, dict[str, list[str]]] = field(default_factory=dict)

    def note(self, test: str, lines: Lines) -> None:
        for file, numbers in lines.items():
            for number in numbers:
                self.ran.setdefault(file, {}).setdefault(str(number), []).append(test)

    def of_line(self, fault: Fault) -> list[str]:
        """The tests that ran the place of the fault. A part of a statement over several lines
        counts with the nearest line before that was run."""
        lines = self.ran.get(fault.file, {})
        found = {test for number in range(fault.line, fault.last_line() + 1)
                 for test in lines.get(str(number), [])}
        for number in range(fault.line - 1, fault.line - 6, -1):
            found = found or set(lines.get(str(number), []))
        return self.fastest_first(found)

    def of_file(self, fault: Fault) -> list[str]:
        """The tests that ran any line of the file; all where that cannot be told, as of scripts
        for a shell."""
        lines = self.ran.get(fault.file)
        return self.fastest_first({test for tests in lines.values() for test in tests} if lines else
                                  set(self.seconds))

    def fastest_first(self, tests: set[str]) -> list[str]:
        return sorted(tests, key=lambda test: (self.seconds[test], test))

    def timed(self, tests: list[str]) -> list[tuple[str, int]]:
        """Each test with the seconds after which it is taken to hang."""
        return [(test, int(20 + 10 * self.seconds[test])) for test in tests]


def _cpp_lines(data: Path, workshop: Workshop) -> Lines:
    """What a test ran of C++, from the counts that its programs left below `data`."""
    found: Lines = defaultdict(set)
    for counts in data.rglob("*.gcda"):
        notes = Path("/", counts.relative_to(data)).with_suffix(".gcno")
        if not notes.is_file():
            continue
        (counts.parent / notes.name).symlink_to(notes)
        said = subprocess.run(["gcov", "--json-format", "--stdout", str(counts)], check=True,
                              capture_output=True, text=True).stdout
        for document in said.splitlines():
            for file in json.loads(document)["files"]:
                path = (workshop.build / file["file"]).resolve()
                if path.is_relative_to(workshop.root):
                    found[str(path.relative_to(workshop.root))].update(
                        line["line_number"] for line in file["lines"] if line["count"] > 0)
    return found


def _python_lines(trace: Path, workshop: Workshop) -> Lines:
    found: Lines = defaultdict(set)
    for place in trace.read_text().splitlines() if trace.is_file() else []:
        name, _, number = place.rpartition(":")
        if Path(name).is_relative_to(workshop.root):
            found[str(Path(name).relative_to(workshop.root))].add(int(number))
    return found


def _python(plain: Workshop) -> Reach:
    """How long every test takes, which has to pass, and then what it runs of the companions. Being
    followed, it may fail, since that takes time and memory."""
    reach = Reach()
    for test in plain.tests():
        start = time.monotonic()
        if not plain.test(test, 600):
            fail(f"{test} in {plain.root} fails without any fault:\n{plain.said[-3000:]}")
        reach.seconds[test] = time.monotonic() - start
        trace = HERE / "trace"
        trace.unlink(missing_ok=True)
        plain.test(test, 600, PYTHONPATH=str(_PYTHON), QUILMRUN_TRACE_FILE=str(trace),
                   QUILMRUN_TRACED_FOLDER="/quilmrun_tools/")
        reach.note(test, _python_lines(trace, plain))
    return reach


def _cpp(tests: Iterable[str]) -> Reach:
    """What each of the tests runs in C++, in a copy that counts it. Some fail there, since counting
    takes memory and writes files when a process ends."""
    workshop = Workshop("coverage", _COVERAGE)
    workshop.prepare()
    reach = Reach()
    for test in tests:
        data = HERE / "counts"
        shutil.rmtree(data, ignore_errors=True)
        workshop.test(test, 600, GCOV_PREFIX=str(data))
        reach.note(test, _cpp_lines(data, workshop))
    return reach


def _kept(name: str, measure: Callable[[], Reach]) -> Reach:
    """From an earlier run when no source has changed since, otherwise measured now."""
    kept, state = HERE / name, checksum()
    if kept.is_file():
        content = json.loads(kept.read_text())
        if content["state"] == state:
            return Reach(content["seconds"], content["ran"])
    print("mutate: finding out which lines each test runs", flush=True)
    reach = measure()
    kept.write_text(json.dumps({"state": state, **asdict(reach)}))
    return reach


def load(plain: Workshop, cpp: bool) -> Reach:
    """What the tests run of the companions, and with `cpp`, which takes longer, of the rest."""
    reach = _kept("reach-python.json", lambda: _python(plain))
    if cpp:
        reach.ran.update(_kept("reach-cpp.json", lambda: _cpp(reach.seconds)).ran)
    return reach
