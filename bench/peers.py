#!/usr/bin/python3
"""peers.py BUILD_DIR NODE_PACKAGE [brief]: runs the same inputs through the same engine library by the
tool, by a Python script and by node, and prints what each takes.

All of them compute with one thread and have to leave the same bytes. Of several repetitions, the
programs taking turns, the least figure counts. Files are in memory, or in the directory
QUILMRUN_BENCH_DIR. Without the package, node is left out. A brief run only shows that it works.
"""

import dataclasses
import filecmp
import itertools
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import numpy
import numpy.typing
import onnx
from onnx import TensorProto, helper, numpy_helper

import peer_script

HERE = pathlib.Path(__file__).resolve().parent
BUILD, PACKAGE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
BRIEF = sys.argv[3:] == ["brief"]
DIRECTORY = os.environ.get("QUILMRUN_BENCH_DIR") or (
    "/dev/shm" if os.access("/dev/shm", os.W_OK) else tempfile.gettempdir())
Commands = dict[str, list[str | pathlib.Path]]
ENGINE = (BUILD / "quilmrun-engine/libonnxruntime.so.1").resolve()


@dataclasses.dataclass(frozen=True)
class Work:
    """A model and the list of its inputs."""
    name: str
    model: pathlib.Path
    inputs: pathlib.Path
    count: int
    repetitions: int
    goal: float  # the tool's processor time, as a multiple of the script's


@dataclasses.dataclass(frozen=True)
class Figures:
    """What a run takes, in ms and MiB."""
    processor: float
    wall: float
    memory: float
    first_output: float  # from the start

    def least(self, other: "Figures") -> "Figures":
        return Figures(min(self.processor, other.processor), min(self.wall, other.wall),
                       min(self.memory, other.memory), min(self.first_output, other.first_output))


def write_list(path: pathlib.Path, names: list[str], count: int) -> pathlib.Path:
    """A list of files beside it, which take turns."""
    path.write_text("".join(f"{name}\n" for name in itertools.islice(itertools.cycle(names), count)))
    return path


def make_digits(scratch: pathlib.Path) -> Work:
    example = HERE.parent / "examples/digits"
    count = 20 if BRIEF else 10000
    shutil.copytree(example / "images", scratch / "images")
    inputs = write_list(scratch / "digits.txt", (example / "list.txt").read_text().split(), count)
    return Work("digits", example / "digits.onnx", inputs, count, 1 if BRIEF else 7, 0.9)


def make_network(path: pathlib.Path) -> None:
    """Convolutions with weights by a fixed seed, of about 20 ms on a machine of 2025."""
    random = numpy.random.default_rng(19)
    weights: dict[str, numpy.typing.NDArray[numpy.float32]] = {}
    nodes: list[onnx.NodeProto] = []

    def add(operator: str, source: str, *shape: int, **attributes: object) -> str:
        name = f"{operator}{len(nodes)}"
        names = [source]
        if shape:
            scale = numpy.sqrt(2 / numpy.prod(shape[1:]))
            weights[name + "_w"] = random.normal(0, scale, shape).astype("f4")
            names.append(name + "_w")
        nodes.append(helper.make_node(operator, names, [name], **attributes))
        return name

    last = add("Relu", add("Conv", "image", 64, 3, 3, 3, strides=[2, 2], pads=[1] * 4))
    for _ in range(24):
        last = add("Relu", add("Conv", last, 64, 64, 3, 3, pads=[1] * 4))
    last = add("Flatten", add("GlobalAveragePool", last))
    last = add("Softmax", add("Gemm", last, 100, 64, transB=1))
    nodes[-1].output[0] = "probabilities"
    graph = helper.make_graph(
        nodes, "network", [helper.make_tensor_value_info("image", TensorProto.FLOAT, [1, 3, 112, 112])],
        [helper.make_tensor_value_info("probabilities", TensorProto.FLOAT, [1, 100])],
        [numpy_helper.from_array(array, name) for name, array in weights.items()])
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 8
    path.write_bytes(model.SerializeToString())


def make_large(scratch: pathlib.Path) -> Work:
    make_network(scratch / "network.onnx")
    count = 2 if BRIEF else 200
    random = numpy.random.default_rng(20)
    names = [f"image_{index}.bin" for index in range(8)]
    for name in names:
        random.standard_normal((3, 112, 112), "f4").tofile(scratch / name)
    inputs = write_list(scratch / "network.txt", names, count)
    return Work("network", scratch / "network.onnx", inputs, count, 1 if BRIEF else 3, 1.02)


def tool_command(work: Work, scratch: pathlib.Path) -> list[str | pathlib.Path]:
    settings = scratch / "settings.json"
    settings.write_text('{"threads": 1}')
    return [BUILD / "quilmrun", "-m", work.model, "-i", work.inputs, "-j", settings, "-o"]


def commands(work: Work, scratch: pathlib.Path) -> Commands:
    """What runs the work, by name; the output folder goes at the end."""
    run: Commands = {
        "tool": tool_command(work, scratch),
        "script": ["/usr/bin/python3", HERE / "peer_script.py", ENGINE, work.model, work.inputs]}
    library = next(PACKAGE.glob(f"bin/napi-v6/linux/*/{ENGINE.name}"), None)
    for path in PACKAGE.glob(f"bin/napi-v6/linux/*/{ENGINE.name}"):
        library = path if filecmp.cmp(path, ENGINE, shallow=False) else library
    if library is None or shutil.which("node") is None:
        print(f"{work.name}: node is left out: it or {PACKAGE} is missing")
    elif not filecmp.cmp(library, ENGINE, shallow=False):
        print(f"{work.name}: node is left out: its package has another engine than {ENGINE}")
    else:
        run["node"] = ["node", HERE / "peer_node.js", PACKAGE, work.model, work.inputs]
    return run


def measure(command: list[str | pathlib.Path], out: pathlib.Path) -> Figures:
    out.mkdir()
    done = subprocess.run([sys.executable, "-IS", HERE / "measured_run.py", out, *command],
                          cwd=out.parent, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{command[0]} failed:\n" + out.with_suffix(".log").read_text()[-2000:])
    processor, wall, memory, start = map(int, done.stdout.split())
    first = min(path.stat().st_mtime_ns for path in (out / "0").iterdir())
    return Figures(processor / 1e6, wall / 1e6, memory / 1024, (first - start) / 1e6)


def contents(out: pathlib.Path, index: int) -> dict[str, bytes]:
    """The files of an inference, by name and suffix."""
    return {path.name.split(".")[0] + path.suffix: path.read_bytes()
            for path in (out / str(index)).iterdir()}


def check_same(work: Work, one: pathlib.Path, other: pathlib.Path) -> None:
    for index in range(work.count):
        if contents(one, index) != contents(other, index):
            sys.exit(f"{work.name}: {other.name} leaves other bytes than {one.name} for input {index}")


def bare_microseconds(scratch: pathlib.Path) -> float:
    """Time that the messages and files of an inference of the tool take by bare system calls."""
    target = scratch / "bare"
    target.mkdir()
    out = scratch / "tool"
    said = subprocess.run([BUILD / "bench/bare_run", out.with_suffix(".log"), out, target],
                          capture_output=True, check=True).stdout
    shutil.rmtree(target)
    return float(said) / 1e3


def run_all(work: Work, programs: Commands,
            scratch: pathlib.Path) -> tuple[dict[str, Figures], float]:
    """The least figures by program, and bare_microseconds()."""
    best: dict[str, Figures] = {}
    bare = []
    for repetition in range(work.repetitions):
        for name, command in programs.items():
            figures = measure(command, scratch / name)
            best[name] = best[name].least(figures) if name in best else figures
            if repetition == 0:
                check_same(work, scratch / "tool", scratch / name)
        bare.append(bare_microseconds(scratch))
        for name in programs:
            shutil.rmtree(scratch / name)
    return best, min(bare)


def engine_microseconds(work: Work) -> float:
    """Processor time of one execution, called from here."""
    engine = peer_script.Engine(str(ENGINE))
    session = peer_script.create_session(engine, str(work.model))
    inputs, _, _, run = peer_script.make_runner(engine, session)
    path = work.inputs.parent / work.inputs.read_text().split("\n", 1)[0]
    inputs.reshape(-1)[:] = numpy.fromfile(path, inputs.dtype)
    times = []
    for _ in range(20):
        start = time.process_time_ns()
        for _ in range(work.count // 20 + 1):
            run()
        times.append((time.process_time_ns() - start) / (work.count // 20 + 1))
    return min(times) / 1e3


def start_microseconds(work: Work, scratch: pathlib.Path) -> float:
    """Processor time of a run of the tool with one input, less what that takes itself."""
    one = dataclasses.replace(work, inputs=scratch / "one.txt", count=1)
    one.inputs.write_text(work.inputs.read_text().split("\n", 1)[0])
    tool = {"tool": tool_command(one, scratch)}
    best, _ = run_all(dataclasses.replace(one, repetitions=min(work.repetitions, 3)), tool, scratch)
    return best["tool"].processor * 1e3 - engine_microseconds(one)


def report(work: Work, scratch: pathlib.Path) -> bool:
    """Prints the figures of the work; true when the goal is met."""
    best, bare = run_all(work, commands(work, scratch), scratch)
    print(f"{work.name}, {work.count:,} inputs, one thread")
    print(f"  {'':8}{'processor':>12}{'wall':>12}{'memory':>12}{'first output':>14}")
    for name, figures in best.items():
        print(f"  {name:8}{figures.processor:9.0f} ms{figures.wall:9.0f} ms"
              f"{figures.memory:8.1f} MiB{figures.first_output:11.1f} ms")
    ratio = best["tool"].processor / best["script"].processor
    print(f"  processor time, tool / script: {ratio:.3f}, goal {work.goal:.2f}"
          f"{'' if ratio <= work.goal else '  missed'}")
    start, engine = start_microseconds(work, scratch), engine_microseconds(work)
    whole = (best["tool"].processor * 1e3 - start) / work.count
    print(f"  processor time of the tool: {start / 1e3:.1f} ms to start, then {whole:.1f} us an "
          f"inference: {engine:.1f} us the engine's run, {bare:.1f} us the same messages and files "
          f"by bare system calls, {whole - engine - bare:.1f} us the rest")
    return ratio <= work.goal


def main() -> int:
    with tempfile.TemporaryDirectory(prefix="quilmrun_", dir=DIRECTORY) as folder:
        scratch = pathlib.Path(folder)
        met = [report(make(scratch), scratch) for make in (make_digits, make_large)]
    return 0 if all(met) or BRIEF else 1


if __name__ == "__main__":
    sys.exit(main())
