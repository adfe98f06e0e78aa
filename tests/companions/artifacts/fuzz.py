"""Fuzzes every reader: mutants of files that are right have to be read or refused in one line, in
bounded time. `fuzz.py [MUTANTS [SEED]]` runs as many as wanted; fuzz_test.py some thousand."""

import json
import pathlib
import random
import shutil
import signal
import sys
import tempfile

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text, run_in_memory
from tool import CSV_HEADER

from quilmrun_tools.artifacts import (comparison, memory_report, prepared_inputs, record, run_log,
                                      values)
from quilmrun_tools.common.errors import Unreadable

STAMP = 1_795_000_000_000_000
_SECONDS = 20  # for one mutant
_WHOLE = 10  # one of so many is read by a whole companion, the others by the reader alone
_WORDS = [b"-1", b"nan", b"NaN", b"1e999", b".", b"9" * 5000, b"9" * 400, b"null", b"true", b"[]",
          b"{}", b'""', b"[" * 100_000, b'"\\ud800"', b"\0", b"\xff\xfe", b"\n", b",", b'"', b"0",
          b"1" * 19, b"99", b"../../..", b"/dev/zero", b"-", b"1.5", b"(-1,)"]


def _record():
    events = [{"name": "quilm_mdl_get_output_data_type", "cat": "model", "ph": "X", "ts": 1.5,
               "dur": 1, "pid": 1, "tid": 1, "args": {"result": 0}},
              {"name": "quilm_mdl_execute", "ph": "X", "ts": 9, "dur": 2, "args": {"group": 0}},
              {"name": "device memory", "ph": "C", "ts": 5, "args": {"bytes": 7}}]
    return json.dumps({"displayTimeUnit": "ms", "otherData": {
        "format": "quilmrun-record", "version": 1, "complete": True, "command": ["quilmrun"],
        "exit_status": 0, "start_us": STAMP, "statistics": {"load": {"count": 1, "mean": 2.0}}},
                       "traceEvents": events}).encode()


def make_run(root):
    """A folder with every file that the companions read, and the output `a` beside `b.npy`."""
    for run in range(3):
        place = root / f"a/{run}"
        place.mkdir(parents=True)
        np.array([run, 1, 2, 3], "<f4").tofile(place / f"y.0.{STAMP + run}.bin")
    np.save(root / "b.npy", np.arange(12, dtype="f8").reshape(3, 4))
    log = log_text([("x", "[1, 4, ]", 0, 16, 16)], [("y", "[1, 4, ]", 0, 16, 16)], 3,
                   [str(root / f"{run}.bin") for run in range(3)])
    (root / "a/log.txt").write_text(log + "[INFO]  Model inputNum: 1\n[INFO]  Load Time: 1.5 ms\n")
    (root / "a/memory_data.csv").write_text(CSV_HEADER + "1.5,2,3,4,5,6,7,8,9\n")
    (root / "a/record.json").write_bytes(_record())
    files = [{"inference": run, "input": "x", "file": f"{run}.bin", "bytes": 16, "sha256": f"{run}",
              "sources": [{"path": f"/p/{run}.png", "sha256": "1", "width": 2, "height": 3}]}
             for run in range(3)]
    (root / "inputs.json").write_text(json.dumps({
        "format": "quilmrun-inputs", "version": 1, "created": "", "command": [], "options": {},
        "model": {"path": "m", "inputs": []}, "list": "l", "batch": 1, "files": files}))
    run_in_memory("quilmrun-compare", [root / "a", root / "b.npy", "--json",
                                       root / "a/comparison.json"])


def mutated(content, rng):
    """A file with one to three random faults."""
    content = bytearray(content)
    for _ in range(rng.choice((1, 1, 1, 2, 3))):
        at = rng.randrange(len(content) + 1)
        end = min(len(content), at + rng.choice((0, 1, 1, 4, 50)))
        kind = rng.randrange(6)
        if kind == 0:
            del content[at:end]
        elif kind == 1:
            content[at:end] = rng.choice(_WORDS)
        elif kind == 2:
            content[at:at] = content[at:end] * 2
        elif kind == 3 and at < len(content):
            content[at] ^= 1 << rng.randrange(8)
        elif kind == 4:
            del content[at:]
        else:  # a whole value, where values are written
            numbers = [place for place, byte in enumerate(content) if byte in b":,[ "]
            at = rng.choice(numbers or [0]) + 1
            while end < len(content) and content[end] not in b",]}\n ":
                end += 1
            content[at:max(at, end)] = rng.choice(_WORDS)
    return bytes(content)


def read_array(path):
    array = values.read_array_file(path)
    values.Reader(1 << 14).whole(array.part(0, 1))


def targets(root):
    """(file, its reader, a companion that reads it)"""
    compare = ["quilmrun-compare", root / "a", root / "b.npy", "--json", root / "out.json"]
    report = ["quilmrun-report", root / "a", "-o", root / "page.html"]
    inputs = ["quilmrun-inputs", "--model-log", root / "a/log.txt", "-o", root / "p"]
    return [(root / "a/log.txt", run_log.read_log, compare),
            (root / "a/log.txt", run_log.read_log, [*inputs, "--random", "1"]),
            (root / "b.npy", read_array, compare),
            (root / "b.npy", read_array, [*inputs, "--input", f"x={root / 'b.npy'}"]),
            (root / "inputs.json", prepared_inputs.read_manifest,
             [*compare, "--inputs", root / "inputs.json"]),
            (root / "a/record.json", record.read_record,
             [*compare, "--log", root / "a/record.json"]),
            (root / "a/record.json", record.read_record, report),
            (root / "a/comparison.json", comparison.read_comparison, report),
            (root / "a/memory_data.csv", memory_report.read_memory_report, report)]


def fuzz(mutants, seed=1):
    """What went wrong, one line each."""
    rng = random.Random(seed)
    wrong = []
    root = pathlib.Path(tempfile.mkdtemp(prefix="quilmrun_"))
    try:
        make_run(root)
        chosen = targets(root)
        for number in range(mutants):
            path, read, command = chosen[number % len(chosen)]
            whole = path.read_bytes()
            mutant = mutated(whole, rng)
            _replace(path, mutant)
            try:
                said = _in_time(lambda: _program(command) if number % _WHOLE == 0 else
                                _reader(read, path))
            finally:
                _replace(path, whole)
                shutil.rmtree(root / "p", ignore_errors=True)
            if said:
                wrong.append(f"mutant {number} of seed {seed}, {path.name}: {said}")
    finally:
        shutil.rmtree(root)
    return wrong


def _replace(path, content):
    """Puts a new file in place, since the last one may still be mapped into memory; forgets what
    was cached of it."""
    path.unlink()
    path.write_bytes(content)
    for name, module in list(sys.modules.items()):
        for one in vars(module).values() if name.startswith("quilmrun_tools.inputs") else ():
            getattr(one, "cache_clear", lambda: None)()


def _in_time(call):
    """What is wrong with how a call ends; empty for nothing."""
    def too_long(*_):
        raise RuntimeError(f"took more than {_SECONDS} s")
    before = signal.signal(signal.SIGALRM, too_long)
    signal.alarm(_SECONDS)
    try:
        return call()
    except BaseException as error:  # pylint: disable=broad-exception-caught
        return repr(error)
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, before)


def _reader(read, path):
    try:
        read(path)
    except Unreadable as error:
        return f"a line of many letters: {str(error)[:200]}" if len(str(error)) > 10_000 else ""
    return ""


def _program(command):
    """A verdict, or a refusal in one line?"""
    status, _, errors = run_in_memory(command[0], command[1:])
    refused = [line for line in errors.splitlines() if ": warning: " not in line]
    if status == 2 and len(refused) == 1 and len(errors) < 100_000:
        return ""
    return "" if status in (0, 1) and not refused else f"status {status}: {errors[-500:]}"


if __name__ == "__main__":
    found = fuzz(*map(int, sys.argv[1:3] or ["20000"]))
    print("\n".join(found[:20]))
    print(f"{len(found)} mutants were neither read nor refused")
    sys.exit(bool(found))
