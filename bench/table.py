#!/usr/bin/python3
"""table.py BUILD_DIR [brief]: measures the parts of a run and whole runs, and prints one table.

Every line has a floor, the least that the same work can cost on the machine at hand, measured in
the same run: figure / floor = ratio, which has to be at most the goal where there is one. Of several
repetitions, floor and figure taking turns, the shortest counts, in processor time for the parts
(quilmrun_bench) and in real time for whole runs: other programs disturb these least. Files are in
memory, or in the directory QUILMRUN_BENCH_DIR. A brief run only shows that everything works.
"""

import csv
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy

import preparing
import reporting

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(sys.argv[1]).resolve()
BRIEF = sys.argv[2:] == ["brief"]
DIRECTORY = os.environ.setdefault(
    "QUILMRUN_BENCH_DIR", "/dev/shm" if os.access("/dev/shm", os.W_OK) else tempfile.gettempdir())
MIB = 2**20

# What, floor and figure by the names of quilmrun_bench, goal.
PARTS = (
    ("text file, 1,000,000 values | write call per ready line", "text/floor", "text/write", 1.15),
    ("binary file, 1,000,000 floats | one write", "binary/floor", "binary/float", 2),
    ("binary file, 1,000,000 int8 | one write", "binary/floor", "binary/int8", 2),
    ("extracting float | memory copy", "extract/floor", "extract/float", 1.15),
    ("extracting int8 | memory copy of the floats", "extract/floor", "extract/int8", 3),
    ("extracting uint8", "extract/floor", "extract/uint8", 3),
    ("extracting int16", "extract/floor", "extract/int16", 3),
    ("extracting uint16", "extract/floor", "extract/uint16", 3),
    ("4,096 rows of 4,096 bytes, no padding | clear and read", "rows_of_4096/floor",
     "rows_of_4096/rows", 1.3),
    ("3,240 rows of 1,920 bytes | clear and read", "rows_of_1920/floor", "rows_of_1920/rows", 1.5),
    ("4,096 rows of 1,000 bytes | clear and read", "rows_of_1000/floor", "rows_of_1000/rows", 1.5),
    ("16,384 rows of 224 bytes | clear and read ready lists", "rows_of_224/lists",
     "rows_of_224/rows", 1.5),
    ("16,384 rows of 224 bytes | clear and one read, packed", "rows_of_224/floor",
     "rows_of_224/rows", None),
    ("65,536 rows of 8 bytes | clear and read ready lists", "rows_of_8/lists", "rows_of_8/rows",
     1.5),
    ("65,536 rows of 8 bytes | clear and a read call per row", "rows_of_8/call_per_row",
     "rows_of_8/rows", 1 / 5),
    ("input file of 3,240 rows, in full | clear and read", "stage/floor", "stage/file", 1.5),
    ("model file of 32 MiB | clear and read", "model/floor", "model/read", 1.3),
    ("list of 100,000 named files, grouped | its lines", "list/floor", "list/group", None),
)

# Groups in a run of the digits example, and how many such runs.
DIGITS_RUNS = ((10, 1), (20, 1)) if BRIEF else ((10, 30), (1000, 12), (10000, 6))
MEMORY_VALUES = 8192 if BRIEF else 8 * MIB
COMPARED_VALUES = MIB if BRIEF else 256 * MIB
SMALL_OUTPUTS = 100 if BRIEF else 10000
COMPARED_OUTPUTS = (50, 100) if BRIEF else (5000, 50000)
MEMORY_GROUPS = (10, 20) if BRIEF else (10000, 50000)

lines: list[tuple[str, float, float, str, float | None]] = []


def add(what: str, floor: float, figure: float, unit: str, goal: float | None = None) -> None:
    lines.append((what, floor, figure, unit, goal))


def measure_parts() -> dict[str, float]:
    """{benchmark: ms}"""
    repetitions, seconds = (1, 0.001) if BRIEF else (12, 0.1)
    with tempfile.NamedTemporaryFile() as report:
        subprocess.run([BUILD / "quilmrun_bench", f"--benchmark_out={report.name}",
                        "--benchmark_out_format=json", f"--benchmark_repetitions={repetitions}",
                        f"--benchmark_min_time={seconds}",
                        "--benchmark_enable_random_interleaving=true"],
                       check=True, stderr=subprocess.DEVNULL)
        runs = json.load(report)["benchmarks"]
    times: dict[str, float] = {}
    for run in runs:
        if run["run_type"] == "iteration":
            name = "/".join(run["run_name"].split("/")[:2])
            times[name] = min(times.get(name, float("inf")), run["cpu_time"] / 1e6)
    return times


class Run:
    """A finished run of the tool on digits, with the record that quilmrun-record made of it."""

    def __init__(self, model: Path, inputs: Path, settings: Path) -> None:
        self.out = Path(tempfile.mkdtemp(dir=settings.parent))
        self.log = self.out.with_suffix(".log")
        self.record = self.out.with_suffix(".json")
        self.calls = self.out.with_suffix(".csv")
        with open(self.log, "wb") as log:
            subprocess.run([BUILD / "quilmrun-record", "-q", "-o", self.record, "--csv", self.calls,
                            BUILD / "quilmrun", "-m", model, "-i", inputs, "-j", settings, "-o",
                            self.out], stdout=log, stderr=subprocess.DEVNULL, check=True)

    def per_inference(self) -> tuple[float, float]:
        """Microseconds: a whole inference, and what the runtime's calls take of it."""
        with open(self.record, encoding="utf-8") as record:
            whole = json.load(record)["otherData"]["statistics"]["inference"]
        with open(self.calls, encoding="utf-8", newline="") as calls:
            runtime = sum(float(call["duration_us"]) for call in csv.DictReader(calls)
                          if call["group"])
        return whole["mean"] * 1000, runtime / whole["count"]

    def bare_per_inference(self) -> float:
        """Microseconds, for the same messages and files with bare system calls."""
        target = tempfile.mkdtemp(dir=self.out.parent)
        result = subprocess.run([BUILD / "bench/bare_run", self.log, self.out, target],
                                capture_output=True, check=True)
        shutil.rmtree(target)
        return float(result.stdout) / 1000

    def remove(self) -> None:
        shutil.rmtree(self.out)
        for file in (self.log, self.record, self.calls):
            file.unlink()


def write(path: Path, content: bytes | str) -> Path:
    path.write_bytes(content if isinstance(content, bytes) else content.encode())
    return path


def measure_digits(scratch: Path) -> None:
    """Speed of the digits example; the shares of a group for every number of groups."""
    example = ROOT / "examples/digits"
    shutil.copytree(example / "images", scratch / "images")
    settings = Path(shutil.copy(example / "quilm.json", scratch))
    names = (example / "list.txt").read_text().splitlines()
    tool_times = {}
    for groups, runs in DIGITS_RUNS:
        inputs = write(scratch / "list.txt", "".join(names[i % len(names)] + "\n"
                                                     for i in range(groups)))
        times, bare_times = [], []
        for _ in range(runs):
            run = Run(example / "digits.onnx", inputs, settings)
            times.append(run.per_inference())
            bare_times.append(run.bare_per_inference())
            run.remove()
        (whole, runtime), bare = min(times), min(bare_times)
        tool = tool_times[groups] = whole - runtime
        add(f"digits, {groups:,} groups: {1e6 / whole:,.0f} a second, {tool / whole:.0%} the tool's"
            " | runtime's calls", runtime, whole, "us")
        add(f"digits, {groups:,} groups: the tool's part | bare system calls", bare, tool, "us")
    *fewer, most = sorted(tool_times)
    for few in fewer:
        add(f"the tool's part of a group at {most:,} groups | at {few:,}", tool_times[few],
            tool_times[most], "us", 1.1)


def peak_bytes(folder: Path, model: bytes, inputs: str, description: str) -> int:
    """Most memory that a run on the scripted runtime has had, by the system's account.

    The process shows it at its end. A parent could ask for it later, but would be told no less than
    what it had itself when it made the process."""
    shown = folder / "status"
    settings = write(folder / "memory.cfg", description +
                     f"run quilm_finalize 1 grep VmHWM /proc/$PPID/status > '{shown}'\n")
    subprocess.run([BUILD / "quilmrun", "-m", write(folder / "model", model), "-i",
                    write(folder / "list.txt", inputs), "-j", settings, "-o",
                    tempfile.mkdtemp(dir=folder)],
                   env=dict(os.environ, LD_LIBRARY_PATH=str(BUILD / "scripted")),
                   stdout=subprocess.DEVNULL, check=True)
    return int(shown.read_text(encoding="ascii").split()[1]) * 1024


def measure_memory(scratch: Path) -> None:
    """Peaks without device memory, against the floats of the largest output + 16 MiB."""
    directory = scratch / "recordings of a whole day"
    directory.mkdir()
    write(directory / "channel.bin", bytes(32))
    line = f"{directory.name}/channel.bin\n"

    def run(what: str, listed: str = line, inputs: int = 1, output: str = "0 64 64 1 16",
            floats: int = 16, model: bytes = b"model") -> None:
        description = f"output y {output}\n" + "".join(
            f"input in{i} 4 32 32 1 32\n" for i in range(inputs + 2))
        device = len(model) + int(output.split()[1]) + 32 * (inputs + 2)
        with tempfile.TemporaryDirectory(dir=scratch) as folder:
            shutil.copytree(directory, Path(folder) / directory.name)
            peak = peak_bytes(Path(folder), model, listed, description)
        add(f"peak memory, {what} | floats + 16 MiB", floats * 4 / MIB + 16, (peak - device) / MIB,
            "MiB", 1)

    values = MEMORY_VALUES
    shape = f"{values // 1024} 1024"
    run(f"output of {values:,} float", output=f"0 {values * 4} 4096 {shape}", floats=values)
    run(f"output of {values:,} int8", output=f"2 {values} 1024 {shape}", floats=values)
    run("model file of 64 MiB", model=bytes(64 * MIB))
    few, many = MEMORY_GROUPS
    run(f"{few:,} groups", line * few)
    run(f"{many:,} groups of 2 named files", f"in1:{line}in0:{line}" * many, 2)


def measure_recorder(scratch: Path) -> None:
    """What the recorder adds to a call, against its goal."""
    command: list[str | Path] = [BUILD / "bench/many_calls",
                                 write(scratch / "settings.json", "{}"),
                                 "10000" if BRIEF else "1000000"]
    calls = write(scratch / "calls", "")
    subprocess.run([BUILD / "lib/quilmrun/record/convert", "prepare", calls, "", "many_calls"],
                   check=True)
    recorded = dict(os.environ, LD_LIBRARY_PATH=str(BUILD / "lib/quilmrun/record"),
                    QUILMRUN_RECORD_CALLS=str(calls))
    plain, noted = (float(subprocess.run(command, env=environment, capture_output=True,
                                         check=True).stdout) / 1000
                    for environment in (None, recorded))
    add("a call: what quilmrun-record adds | 0.3 us", 0.3, noted - plain, "us", 1)
    for count in (1000, 2000) if BRIEF else (10000, 1000000):
        measure_long_recording(scratch, count)


def measure_long_recording(scratch, count):
    """Memory and files of the recorder for so many inferences of a runtime that does nothing."""
    settings = write(scratch / "nothing.cfg", "output y 4 64 64 1 64\n" + 3 * "input x 4 64 64 1 64\n")
    command = [BUILD / "bench/many_calls", settings, str(count), "inferences"]
    calls, record = write(scratch / "calls", ""), scratch / "long.json"
    environment = dict(os.environ, LD_LIBRARY_PATH=str(BUILD / "scripted"))

    def peak(*within):
        return int(subprocess.run([BUILD / "bench/peak", *within, *command], env=environment,
                                  capture_output=True, check=True).stderr) / MIB

    plain = peak()
    add(f"quilmrun-record's memory, {count:,} inferences | 8 MiB", 8,
        peak(BUILD / "quilmrun-record", "-q", "-o", record) - plain, "MiB", 1)
    add(f"record.json of {count:,} inferences, each | 2,000 bytes", 2000,
        record.stat().st_size / count, "B", 1)
    record.unlink()
    subprocess.run([BUILD / "lib/quilmrun/record/convert", "prepare", calls, "", "many_calls"],
                   check=True)
    path = f"{BUILD / 'lib/quilmrun/record'}:{environment['LD_LIBRARY_PATH']}"
    made = subprocess.run(command, env=dict(environment, LD_LIBRARY_PATH=path,
                                            QUILMRUN_RECORD_CALLS=str(calls)),
                          capture_output=True, check=True).stdout
    add(f"written while {count:,} inferences run, a call | 64 bytes", 64,
        calls.stat().st_size / int(made), "B", 1)
    calls.unlink()


def measure_comparing(scratch: Path) -> None:
    """quilmrun-compare on one large output, on many small ones, and its memory."""
    compare = ROOT / "companions/quilmrun-compare"
    write_outputs(scratch / "large", 1, COMPARED_VALUES)
    write_outputs(scratch / "small", SMALL_OUTPUTS, 1000)

    def best_ms(*command: str | Path) -> float:
        times = []
        for _ in range(1 if BRIEF else 5):
            start = time.perf_counter()
            subprocess.run(command, cwd=scratch, check=True, stdout=subprocess.DEVNULL)
            times.append(time.perf_counter() - start)
        return min(times) * 1000

    size = COMPARED_VALUES * 4 // MIB
    floor = best_ms("cmp", "large/one/0/y.0.1.bin", "large/equal/0/y.0.1.bin")
    for folder, what in (("equal", "equal"), ("near", "all different")):
        add(f"quilmrun-compare, 2 x {size:,} MiB, {what} | cmp of equal files", floor,
            best_ms(compare, "large/one", f"large/{folder}"), "ms", 8)
    add(f"quilmrun-compare, {SMALL_OUTPUTS:,} outputs of 1,000 floats | plain loop in NumPy",
        best_ms("/usr/bin/python3", ROOT / "bench/plain_compare.py", "small/one", "small/near"),
        best_ms(compare, "small/one", "small/near"), "ms", 1.5)
    shutil.rmtree(scratch / "large")
    shutil.rmtree(scratch / "small")
    peaks = {}
    for outputs in COMPARED_OUTPUTS:
        write_outputs(scratch / "many", outputs, 10)
        peaks[outputs] = peak_of(compare, scratch / "many/one", scratch / "many/near")
        shutil.rmtree(scratch / "many")
    few, many = COMPARED_OUTPUTS
    add(f"quilmrun-compare, peak memory at {many:,} outputs | at {few:,}", peaks[few], peaks[many],
        "MiB", 1.5)


def write_outputs(folder: Path, runs: int, values: int) -> None:
    """Outputs of one run of the tool, the same once more, and others that all differ a little."""
    generator = numpy.random.default_rng(0)
    for run in range(runs):
        content = generator.standard_normal(values, numpy.float32)
        for name, factor in (("one", 1), ("equal", 1), ("near", 1 + 1e-6)):
            place = folder / name / str(run)
            place.mkdir(parents=True)
            (content * numpy.float32(factor)).tofile(place / f"y.0.{run + 1}.bin")


def peak_of(*command: str | Path) -> float:
    """MiB that a command uses at its peak, of a process that has no other children."""
    script = ("import resource, subprocess, sys\n"
              "subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)\n"
              "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    result = subprocess.run([sys.executable, "-c", script, *command], check=True,
                            capture_output=True)
    return int(result.stdout) / 1024


def format_value(value: float, unit: str) -> str:
    return f"{value:,.3f} {unit}" if value < 10 else f"{value:,.1f} {unit}"


def print_table() -> None:
    print(f"{'what | floor':72}{'floor':>12}{'figure':>12}{'ratio':>7}{'goal':>7}")
    for what, floor, figure, unit, goal in lines:
        ratio = figure / floor
        goal_text = "" if goal is None else f"{goal:.2f}" if goal >= 0.1 else f"{goal:.3f}"
        missed = goal is not None and ratio > goal
        print(f"{what:72}{format_value(floor, unit):>12}{format_value(figure, unit):>12}"
              f"{ratio:7.{2 if ratio >= 0.1 else 3}f}{goal_text:>7}{'  missed' if missed else ''}")


def main() -> None:
    times = measure_parts()
    for what, floor, figure, goal in PARTS:
        add(what, times[floor], times[figure], "ms", goal)
    with tempfile.TemporaryDirectory(prefix="quilmrun_", dir=DIRECTORY) as scratch:
        measure_digits(Path(scratch))
        measure_memory(Path(scratch))
        measure_comparing(Path(scratch))
        measure_recorder(Path(scratch))
        preparing.measure(Path(scratch), add, BRIEF)
        reporting.measure(BUILD, Path(scratch), add, BRIEF)
    print_table()


if __name__ == "__main__":
    main()
