"""Computes what each layer should make of the board's own values, on the host runtime."""

from __future__ import annotations

import math
import re
import shutil
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator, Sequence


import numpy as np

from quilmrun_tools.artifacts.element_types import FLOATS, INT32_BITS
from quilmrun_tools.artifacts.output_folder import read_output_folder
from quilmrun_tools.artifacts.values import Reader, Values, of_dump
from quilmrun_tools.common.parallel_map import parallel_map
from quilmrun_tools.layers.cut import Cut, cut, is_integer, sources_of
from quilmrun_tools.layers.graph import Graph
from quilmrun_tools.layers.measure import Array

_PART = 2_000_000  # values that come out of one cut, at 27 bytes on disk each
_READ = 1 << 20  # values read at a time


@dataclass(frozen=True)
class Feed:
    """What there is to compute from."""
    graph: Graph
    values: dict[str, dict[int, Values]]  # {tensor: {inference: the board's values}}
    shapes: dict[str, list[int]]  # of tensors and inputs of the model, at batch size 1
    files: dict[int, dict[str, Path]]  # {inference: {input of the model: its file}}
    runs: list[int]  # inferences
    batch: int  # samples in each


class Failed(Exception):
    """The tool could not compute a cut; the text says why."""


def parts(feed: Feed, layers: Sequence[str]) -> list[list[str]]:
    """The layers in groups that are computed at a time, in the order of the graph."""
    groups: list[list[str]] = []
    size = _PART
    for layer in layers:
        count = math.prod(feed.shapes[layer])
        if size + count > _PART:
            groups.append([])
            size = 0
        groups[-1].append(layer)
        size += count
    return groups


def compute(feed: Feed, layers: Sequence[str], tool: str,
            take: Callable[[str, int, Array, Array], None]) -> None:
    """Computes a group of layers and hands on, for each and each inference, the board's values and
    those that should have come out: take(layer, inference, board, reference). Raises Failed."""
    known = set(feed.values)
    made = cut(feed.graph, layers, known, feed.shapes)
    with tempfile.TemporaryDirectory(prefix="quilmrun-layers-") as name:
        folder = Path(name)
        (folder / "cut.onnx").write_bytes(made.model.SerializeToString())
        jobs = [(run, sample) for run in feed.runs for sample in range(feed.batch)]

        def execute(job: tuple[int, int]) -> Path:
            place = folder / f"{job[0]}-{job[1]}"
            place.mkdir()
            _run(feed, made, place, *job, tool)
            return place
        # The tool computes other inferences while one is measured.
        for job, place in zip(jobs, parallel_map(execute, jobs)):
            _take(feed, made, *job, place, take)


def _run(feed: Feed, made: Cut, place: Path, run: int, sample: int, tool: str) -> None:
    """Runs the cut on one sample of an inference, into the folder `place`."""
    names = []
    for at, tensor in enumerate(made.fed):
        names.append(f"{at}.bin")
        _write_input(place / names[-1], feed, tensor, run, sample)
    for at, tensor in enumerate(made.inputs, len(made.fed)):
        names.append(f"{at}.bin")
        _write_slice(place / names[-1], feed.files[run][tensor], sample, feed.batch)
    (place / "list.txt").write_text("".join(f"{name}\n" for name in names))
    (place / "quilm.json").write_text("{}\n")
    done = subprocess.run(
        [tool, "-m", place.parent / "cut.onnx", "-i", place / "list.txt",
         "-j", place / "quilm.json", "-o", place], check=False, capture_output=True,
        encoding="utf-8", errors="surrogateescape")
    if done.returncode != 0 or "[ERROR]" in done.stdout:
        errors = re.findall(r"^\[ERROR\] (.*)", done.stdout, re.M)
        said = done.stderr.strip().splitlines()[-1:] + errors
        raise Failed((said or [f"{tool} ended with {done.returncode}"])[0])
    for file in (place / "0").glob("*.float"):
        file.unlink()  # only the .bin files are read, and these take little room


def _write_input(path: Path, feed: Feed, tensor: str, run: int, sample: int) -> None:
    """The board's values of a tensor as an input file; the board's own file where it is one."""
    values = feed.values[tensor][run]
    integer = is_integer(feed.graph, tensor)
    if values.type == (INT32_BITS if integer else FLOATS) and feed.batch == 1:
        path.symlink_to(values.path.absolute())
        return
    one = sample_of(values, sample, feed.batch)
    path.write_bytes(one.astype("<i4" if integer else "<f4").tobytes())


def _write_slice(path: Path, source: Path, sample: int, batch: int) -> None:
    """One sample of an input file."""
    if batch == 1:
        path.symlink_to(source.absolute())
        return
    size = source.stat().st_size // batch
    with open(source, "rb") as file:
        file.seek(sample * size)
        path.write_bytes(file.read(size))


def _take(feed: Feed, made: Cut, run: int, sample: int, place: Path,
          take: Callable[[str, int, Array, Array], None]) -> None:
    outputs = {output.name: output for output in read_output_folder(str(place)).outputs_of(0)}
    for at, layer in enumerate(made.layers):
        path = outputs[f"own_{at}"].bin_path if f"own_{at}" in outputs else None
        if path is None:
            raise Failed(f"{layer} did not come out")
        stored = INT32_BITS if is_integer(feed.graph, layer) else FLOATS
        reference = whole(of_dump(path, stored))
        board = sample_of(feed.values[layer][run], sample, feed.batch)
        if reference.size != board.size:
            raise Failed(f"{layer} has {board.size} values on the board and {reference.size} here")
        take(layer, run, board, reference)
    shutil.rmtree(place)


def sample_of(values: Values, sample: int, batch: int) -> Array:
    """One sample of the values of an inference."""
    size = values.count // batch
    return whole(values.section(sample * size, size) if batch > 1 else values)


def whole(values: Values) -> Array:
    """All values, as 32-bit floats where these hold them."""
    result: Array = np.empty(values.count,
                             np.float64 if values.type == INT32_BITS else np.float32)
    at = 0
    for chunk in Reader(_READ).numbers(values):
        result[at:at + chunk.size] = chunk
        at += chunk.size
    return result


def undecidable(feed: Feed, layers: Sequence[str]) -> Iterator[tuple[str, str]]:
    """Layers whose own error cannot be computed, each with the reason."""
    for layer in layers:
        for source in sources_of(feed.graph, layer, set(feed.values)):
            if source not in feed.shapes:
                yield layer, f"the shape of {source} is not known: give --pc-log"
            elif source not in feed.values and any(source not in feed.files.get(run, {})
                                                   for run in feed.runs):
                yield layer, (f"it reads the model's input {source}, whose files the run's log "
                              "does not name: give --pc-log")


def halves(layers: list[str]) -> list[list[str]]:
    """A group in two, to find out which layer it is that fails."""
    middle = len(layers) // 2
    return [layers[:middle], layers[middle:]]
