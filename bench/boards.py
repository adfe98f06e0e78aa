#!/usr/bin/python3
"""boards.py BUILD_DIR [brief | scale INFERENCES]: what quilmrun-boards adds to a run, on boards of
this machine, which are sshd's on loopback.

The floor is the same run here, and its outputs copied by tar through ssh, as one would by hand.
Processor time is that of all processes, those of the boards included. `scale` runs a model that
does nothing in parts of 1,000 on two boards, and shows what this side needs for it.
"""

import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests"))

from companions.boards.loopback import Boards  # noqa: E402

BUILD = pathlib.Path(sys.argv[1]).resolve()
DIGITS = ROOT / "examples/digits"
COUNT, REPETITIONS = (200, 1) if sys.argv[2:] == ["brief"] else (10000, 3)


def measure(command, folder, shell=False):
    """(wall seconds, processor seconds) of a command; the boards' are added by the caller."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    with open(os.devnull, "wb") as nothing:
        subprocess.run(command, cwd=folder, check=True, stdout=nothing, shell=shell)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (time.monotonic() - start,
            after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)


def board_seconds(boards):
    """Processor time of everything that the daemons have waited for."""
    total = 0.0
    for board in boards.boards.values():
        for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                fields = stat.read_text(errors="replace").rpartition(")")[2].split()
            except (FileNotFoundError, ProcessLookupError):
                continue
            if int(fields[1]) == board.process.pid:  # below timeout
                total += sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")
    return total


class Bench:
    """A folder with a list, and two boards."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.boards = Boards(self.folder / "boards", ("one", "two"))
        (self.folder / "images").symlink_to(DIGITS / "images")
        (self.folder / "quilm.json").write_text("{}")
        names = (DIGITS / "list.txt").read_text().split()
        self.run = [str(BUILD / "quilmrun"), "-m", str(DIGITS / "digits.onnx"), "-i", "list.txt",
                    "-j", "quilm.json", "-o", "out"]
        (self.folder / "list.txt").write_text("".join(f"{names[at % 20]}\n" for at in range(COUNT)))

    def fresh(self):
        """An output folder that is new; removing an old one belongs to no measurement."""
        for name in ("out", "copy"):
            shutil.rmtree(self.folder / name, ignore_errors=True)

    def here(self):
        """The run here and the copy."""
        self.fresh()
        for name in ("out", "copy"):
            (self.folder / name).mkdir()
        before = board_seconds(self.boards)
        run = measure(self.run, self.folder)
        copy = measure(f"ssh -F '{self.boards.config}' one \"tar cf - -C '{self.folder}/out' .\" | "
                       "tar xf - -C copy", self.folder, shell=True)
        time.sleep(0.2)
        return run[0] + copy[0], run[1] + copy[1] + board_seconds(self.boards) - before

    def on(self, *names, options=()):
        """The run on boards."""
        self.fresh()
        before = board_seconds(self.boards)
        wall, used = measure(
            [str(ROOT / "companions/quilmrun-boards"),
             *(word for name in names for word in ("-H", name)), "--ssh-config",
             str(self.boards.config), "--remote-dir", str(self.boards.room),
             "--remote-library-path", str(self.library()), *options, "--", *self.run], self.folder)
        time.sleep(0.2)
        return wall, used + board_seconds(self.boards) - before

    @staticmethod
    def library():
        """Of the host runtime."""
        return BUILD / ("host_identity" if sys.argv[2:3] == ["scale"] else "")

    def identity(self, count):
        """Makes it a run of a model that does nothing."""
        import onnx  # pylint: disable=import-outside-toplevel
        node = onnx.helper.make_node("Identity", ["x"], ["y"])
        values = [onnx.helper.make_tensor_value_info(name, onnx.TensorProto.FLOAT, [1, 1])
                  for name in "xy"]
        graph = onnx.helper.make_graph([node], "nothing", values[:1], values[1:])
        opset = [onnx.helper.make_opsetid("", 13)]
        onnx.save(onnx.helper.make_model(graph, opset_imports=opset, ir_version=8),
                  self.folder / "model.onnx")
        (self.folder / "x.bin").write_bytes(bytes(4))
        (self.folder / "list.txt").write_text("x.bin\n" * count)
        self.run[2] = "model.onnx"


def line(what, floor, figure, goal):
    ratio = figure / floor
    print(f"{what:<64} {floor:8.2f} s {figure:8.2f} s {ratio:6.2f} {goal:5.2f}"
          + ("" if ratio <= goal else "  <-- above"))


def main():
    with tempfile.TemporaryDirectory(prefix="quilmrun_bench_",
                                     dir=os.environ.get("QUILMRUN_BENCH_DIR")) as folder:
        bench = Bench(folder)
        try:
            if sys.argv[2:3] == ["scale"]:
                bench.identity(int(sys.argv[3]))
                wall, used = bench.on("one", "two", options=["--part", "1000"])
                most = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss / 1024
                print(f"{sys.argv[3]} inferences: {wall:.0f} s, {used:.0f} s of processors, at most "
                      f"{most:.0f} MB in one process")
                return
            rounds = [(bench.here(), bench.on("one"), bench.on("one", "two"))
                      for _ in range(REPETITIONS)]
        finally:
            bench.boards.stop()
    here, one, two = (tuple(map(min, zip(*runs))) for runs in zip(*rounds))
    line(f"{COUNT:,} digits on one board, processors | here and tar by hand", here[1], one[1], 1.6)
    line(f"{COUNT:,} digits on one board, wall | here and tar by hand", here[0], one[0], 1.6)
    line(f"{COUNT:,} digits on two boards, wall | on one", one[0], two[0], 1.0)


main()
