"""The parts of a record's figures. Times are in milliseconds, sizes in bytes; moments count from
the start of the recording on."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Iterator

from quilmrun_tools.common.decoding import json_name

PERCENTILES = (50, 90, 95, 99)


@dataclass(frozen=True)
class Distribution:
    """What a number of durations have in common."""

    count: int
    min: float = 0.0
    mean: float = 0.0
    p50: float = 0.0
    p90: float = 0.0
    p95: float = 0.0
    p99: float = 0.0
    max: float = 0.0
    per_second: float = 0.0  # so many fit into a second, back to back: 1000 / mean
    percentiles_within: float = 0.0  # how far a percentile may be off, as a share of it

    @staticmethod
    def of(durations: list[float]) -> "Distribution | None":
        """The distribution of durations in milliseconds; None when there are none."""
        if not durations:
            return None
        ranked, count, total = sorted(durations), len(durations), sum(durations)
        p50, p90, p95, p99 = (_percentile(ranked, percent) for percent in PERCENTILES)
        return Distribution(count, ranked[0], total / count, p50, p90, p95, p99, ranked[-1],
                            1000.0 * count / total if total > 0 else 0.0)


def _percentile(ranked: list[float], percent: int) -> float:
    """Interpolated between the two durations around it, as the recorder does."""
    below, rest = divmod(percent * (len(ranked) - 1), 100)
    above = min(below + 1, len(ranked) - 1)
    return ranked[below] + rest / 100 * (ranked[above] - ranked[below])


@dataclass(frozen=True)
class UsedFile:
    """A file that a run used; no size and checksum where it changed before these were taken."""

    path: str
    bytes: int | None = None
    sha256: str | None = None


@dataclass(frozen=True)
class Where:
    """Machine, time and files of a run, as far as they are known."""

    date: str | None = None  # 2026-11-23T18:02:30+0100
    name: str | None = None
    board: str | None = None  # or the PC's model
    processor: str | None = None
    cores: int | None = None
    kernel: str | None = None
    companions: str | None = None  # their version
    tool: UsedFile | None = None
    runtime: UsedFile | None = None
    model: UsedFile | None = None
    settings: UsedFile | None = None


@dataclass(frozen=True)
class Loop:
    """All inferences together: from the start of the first to the end of the last complete one."""

    begun: int = 0
    inferences: int = 0  # that got to their end
    ms: float = 0.0
    per_second: float = json_name("inferences_per_second", default=0.0)  # by the clock


@dataclass(frozen=True)
class FunctionTotals:
    """All calls of one function."""

    count: int
    failed: int
    total_ms: float = json_name("total")
    min_ms: float = json_name("min")
    max_ms: float = json_name("max")


@dataclass(frozen=True)
class CourseBin:
    """The executions of inferences that follow each other, the warm-up included."""

    first_inference: int
    at_ms: float  # start of the first inference
    executions: int
    min_ms: float
    median_ms: float
    max_ms: float


@dataclass(frozen=True)
class Course:
    """Executions by inference; columns of one length, at most 500 bins."""

    inferences_per_bin: int = 1
    inference: list[int] = field(default_factory=list)
    at: list[float] = field(default_factory=list)
    executions: list[int] = field(default_factory=list)
    min: list[float] = field(default_factory=list)
    median: list[float] = field(default_factory=list)
    max: list[float] = field(default_factory=list)

    def bins(self) -> Iterator[CourseBin]:
        """The columns' rows."""
        for row in zip(self.inference, self.at, self.executions, self.min, self.median, self.max):
            yield CourseBin(*row)


@dataclass(frozen=True)
class Memory:
    """Device memory in use."""

    peak_bytes: int = 0
    # (moment, bytes): each change outside of inferences, and the peak in each bin of the course.
    course: list[tuple[float, int]] = field(default_factory=list)


@dataclass(frozen=True)
class TraceExtent:
    """What of a run the trace shows."""

    inferences: int = 0  # of the run
    kept: int = 0  # of these
    all_calls: bool = True  # those that only ask too
    first: int = 0  # where not all are kept: so many of the first,
    last: int = 0  # of the last
    slowest: int = 0  # and of the slowest,
    every: int = 1  # and every so manyth
