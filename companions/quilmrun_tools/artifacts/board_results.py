"""boards.json, in which quilmrun-boards says which board did which part of a run, and how."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Optional, TextIO

from quilmrun_tools.common.decoding import Wrong, decode, not_in_json
from quilmrun_tools.common.json_files import Format, headed, read_json, write_json

FORMAT = "quilmrun-boards"
FORM = Format(FORMAT, 1, "run quilmrun-boards again")
FILE_NAME = "boards.json"

# A median is remarkable from this share of the others' on.
_REMARKABLE = 0.10


@dataclass(frozen=True)
class Latency:
    """Durations of single inferences, in milliseconds."""
    source: str  # "record": executions; "stamps": from one inference's outputs to the next's
    count: int
    p50_ms: float
    p99_ms: float
    p50_low_ms: float  # the interval that holds the median with 95 % confidence
    p50_high_ms: float
    per_second: float


@dataclass(frozen=True)
class Difference:
    """A board's median against that of all other boards, as shares of the latter: 0.2 is 20 %
    slower. The interval holds the true difference with at least 90 % confidence."""
    share: float
    low: float
    high: float

    @property
    def is_remarkable(self) -> bool:
        """More than 10 %, by an interval that excludes 0."""
        return abs(self.share) > _REMARKABLE and not self.low <= 0 <= self.high


@dataclass(frozen=True)
class Try:
    """One attempt to run a part on a board."""
    board: str
    outcome: str  # "done", "unreachable", "failed", "hung", "incomplete" or "stopped"
    reason: str  # one line; empty when done
    seconds: float
    log: str = ""  # of one that failed, relative to boards.json; empty when none came back
    error: str = ""  # the first [ERROR] of the tool


@dataclass(frozen=True)
class Part:
    """Consecutive inferences that one board did, or that nobody did yet."""
    number: int
    first: int  # its first inference
    inferences: int
    board: str = ""  # empty for one that is missing
    tries: tuple[Try, ...] = ()
    seconds: float = 0.0  # of the try that counts, transport included
    status: Optional[int] = None  # the tool's; None for a part that is missing
    log: str = ""  # relative to boards.json, where the part's inferences begin at this byte ...
    log_offset: int = 0
    log_bytes: int = 0  # ... and take this many
    sha256: str = ""  # of the names, sizes and contents of its output files
    latency: Optional[Latency] = None


@dataclass(frozen=True)
class Board:
    """What a board did in all."""
    name: str  # as ssh is given it
    processor: str = ""  # as uname -m says; empty for one that never answered
    tool: str = ""  # checksum, or path on the board
    library: str = ""  # checksum of its libquilm.so; empty when not found
    parts: int = 0
    inferences: int = 0
    failures: int = 0  # tries that did not end in a part
    seconds: float = 0.0  # of its parts that count
    left_out: str = ""  # why it got no more parts; empty for one that did
    latency: Optional[Latency] = None
    difference: Optional[Difference] = None  # None without another board's latency

    @property
    def per_second(self) -> float:
        """Inferences a second, with everything that a part costs."""
        return self.inferences / self.seconds if self.seconds > 0 else 0.0


@dataclass
class BoardResults:
    """All of boards.json."""
    created: str  # as 2026-11-23T07:00:00Z
    run: str  # names the run's folders on the boards
    command: list[str]  # the tool's, with local paths
    checksums: dict[str, str]  # "model", "settings", "list", "rpn", "inputs", "options"
    inferences: int
    files_per_inference: int
    status: int  # what quilmrun-boards ended with
    reason: str = ""  # why it was not 0
    unsplit_from: Optional[int] = None  # the inference from which on one board did all the rest
    boards: list[Board] = field(default_factory=list)
    parts: list[Part] = field(default_factory=list)
    path: str = not_in_json(default="")  # where it was read from

    @property
    def missing(self) -> int:
        """Inferences whose outputs are not there."""
        return self.inferences - sum(part.inferences for part in self.parts if part.board)

    def write(self, path: str, out: TextIO) -> None:
        """Writes the file; "-" is the stream `out`."""
        write_json(path, headed(FORM, self), out)


def read_board_results(path: str) -> BoardResults:
    """Reads a boards.json, or the one in the directory `path`; raises Unreadable."""
    if Path(path).is_dir():
        path = str(Path(path) / FILE_NAME)
    results = read_json(path, FORM, BoardResults)
    results.path = path
    return results


def part_from_json(value: dict[str, Any]) -> Part:
    """A part as asdict() has it; raises TypeError for anything else."""
    try:
        return decode(Part, value)
    except Wrong as wrong:
        raise TypeError(str(wrong)) from wrong
