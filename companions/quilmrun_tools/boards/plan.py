"""What is to be run, as the jobs of one run find it: written once, read by every job."""

from __future__ import annotations

import json
import os
from dataclasses import asdict, dataclass, field
from typing import Any, Iterator

_PART_BYTES = 64 << 20
_VALUE_BYTES = 23  # in both files of an output
_PARTS_A_BOARD = 4


@dataclass(frozen=True)
class OutputShape:
    """What the files of one output hold."""
    name: str  # as in file names
    duplicate: int
    rows: int  # for a batch size of 1
    row_values: int  # 0 for one that the tool cannot write


@dataclass
class Plan:
    """All that a job has to know beside its part."""
    run: str  # letters and digits; names the folders on the boards
    command: list[str]  # the tool's
    hosts: list[str]
    ssh: list[str]  # ssh with its options
    remote_dir: str
    library_path: str = ""
    remote_tool: str = ""
    tools: list[str] = field(default_factory=list)  # executables or packages that the user named
    record: bool = False
    without_text: bool = False
    keep: bool = False
    timeout: int = 60  # seconds for an inference
    silence: int = 30  # seconds without a sign of life
    local_tool: str = ""  # for boards with this processor
    model_sha256: str = ""
    outputs: list[OutputShape] = field(default_factory=list)
    inferences: int = 0  # of the whole run

    def to_bytes(self) -> bytes:
        """As written to a file."""
        return json.dumps(asdict(self)).encode()

    @staticmethod
    def from_bytes(text: bytes) -> "Plan":
        """Reads what to_bytes() made."""
        value: dict[str, Any] = json.loads(text)
        value["outputs"] = [OutputShape(**one) for one in value["outputs"]]
        return Plan(**value)


@dataclass(frozen=True)
class Slice:
    """The inputs of one part: of each inference as many as the model takes."""
    number: int
    first: int  # inference
    inferences: int
    entries: tuple[bytes, ...]  # paths as the tool has them

    def to_bytes(self) -> bytes:
        """As written to a file. A path holds everything but the byte 0."""
        head = b"%d %d %d" % (self.number, self.first, self.inferences)
        return b"\0".join([head, *self.entries])

    @staticmethod
    def from_bytes(text: bytes) -> "Slice":
        """Reads what to_bytes() made."""
        head, *entries = text.split(b"\0")
        number, first, inferences = map(int, head.split())
        return Slice(number, first, inferences, tuple(entries))


def part_size(inferences: int, boards: int, outputs: list[OutputShape], batch: int) -> int:
    """Inferences of a part: its outputs stay below 64 MB, and every board gets at least four."""
    values = sum(shape.rows * shape.row_values for shape in outputs) * max(batch, 1)
    by_size = _PART_BYTES // max(values * _VALUE_BYTES, 1)
    by_boards = -(-inferences // (_PARTS_A_BOARD * boards))
    return max(1, min(by_size, by_boards))


def cut(entries: list[bytes], files_per_inference: int, size: int, first: int = 0,
        number: int = 0) -> Iterator[Slice]:
    """The parts of a list from an inference on. There is always one, and files that fill no
    inference are in none."""
    step = files_per_inference
    total = len(entries) // step if step else 0
    while True:
        count = min(size, total - first)
        yield Slice(number, first, count, tuple(entries[first * step:(first + count) * step]))
        first, number = first + count, number + 1
        if first >= total:
            return


def real(path: bytes) -> bytes:
    """A path as the tool resolves it; one that names nothing is only made absolute."""
    try:
        return os.path.realpath(path, strict=True)
    except OSError:
        return path if path.startswith(b"/") else os.getcwdb() + b"/" + path
