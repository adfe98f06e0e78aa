"""Reads record.json, which quilmrun-record writes: one trace event for every runtime call.

A record may have been cut short, by a signal or a crash of the library. What was written until
then is read all the same, and `complete` says that it is not all.
"""

from __future__ import annotations

import json
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Iterator

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, read_regular
from quilmrun_tools.common.json_files import Format, check_version, decoded

FORMAT = "quilmrun-record"
FORM = Format(FORMAT, 1, "record the run again with quilmrun-record -o FILE quilmrun ...")
EXECUTE = "quilm_mdl_execute"
PERCENTILES = (50, 90, 95, 99)


@dataclass(frozen=True)
class Call:
    """One call of the runtime; times in milliseconds, counted from the first event."""

    function: str
    start_ms: float
    duration_ms: float
    result: int | str | None  # pointers are texts
    group: int | None


@dataclass(frozen=True)
class MemoryPoint:
    """Device memory in use, in bytes, from a point in time (milliseconds) on."""

    at_ms: float
    bytes: int


@dataclass(frozen=True)
class Distribution:
    """What a number of durations have in common; all in milliseconds but count and rate."""

    count: int
    min: float = 0.0
    mean: float = 0.0
    p50: float = 0.0
    p90: float = 0.0
    p95: float = 0.0
    p99: float = 0.0
    max: float = 0.0
    per_second: float = 0.0

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


@dataclass
class Record:
    """Everything that record.json says."""

    path: Path
    command: list[str] = field(default_factory=list)
    library: str = ""
    complete: bool = False
    exit_status: int | None = None
    start_us: int = 0  # microseconds since 1970
    recorder_cost_us: float | None = None
    dropped: int = 0
    statistics: dict[str, Distribution] = field(default_factory=dict)
    calls: list[Call] = field(default_factory=list)
    memory: list[MemoryPoint] = field(default_factory=list)
    unfinished: str = ""  # the function in which the run ended
    part: bool = False  # of a record that was complete when it was written

    @property
    def executions(self) -> list[Call]:
        """The executions of the model that succeeded, in order; the first one is the warm-up."""
        return [call for call in self.calls
                if call.function == EXECUTE and call.result in (0, None)]

    @property
    def span_ms(self) -> float:
        """From the start of the first call to the end of the last one."""
        if not self.calls:
            return 0.0
        return (max(call.start_ms + call.duration_ms for call in self.calls)
                - min(call.start_ms for call in self.calls))

    @property
    def inferences(self) -> int:
        """How many there were; 0 when nothing tells."""
        row = self.statistics.get("inference")
        return row.count if row else 0

    @property
    def peak_memory(self) -> int | None:
        """The most device memory in use at once, in bytes."""
        return max((point.bytes for point in self.memory), default=None)

    def distribution(self, kind: str) -> Distribution | None:
        """The recorder's own figures of a kind; those of executions also without them."""
        executions = {"warm_up": self.executions[:1], "execute": self.executions[1:]}.get(kind, [])
        return self.statistics.get(kind) or Distribution.of(
            [call.duration_ms for call in executions])


@dataclass(frozen=True)
class _Header:
    """The facts of a run, as "otherData" has them."""
    command: list[str] = field(default_factory=list)
    library: str = ""
    complete: bool = False
    exit_status: int | None = None
    start_us: int = 0
    recorder_cost_us: float | None = None
    dropped: int = 0
    statistics: dict[str, Distribution | None] = field(default_factory=dict)


@dataclass(frozen=True)
class _Arguments:
    """What an event says of its call, or of device memory."""
    result: int | str | None = None
    group: int | None = None
    bytes: int | None = None


@dataclass(frozen=True)
class _Event:
    """A trace event; times in microseconds."""
    name: str = ""
    ph: str = ""
    ts: float | None = None  # events without it describe the trace itself
    dur: float = 0.0
    args: _Arguments = field(default_factory=_Arguments)


def read_record(path: AnyPath) -> Record:
    """Reads a record, whole or cut short; raises Unreadable with a line that says what to do."""
    text = read_regular(path).decode("utf-8", "replace")
    try:
        document, whole = json.loads(text, parse_constant=_no_number), True
    except RecursionError:
        raise Unreadable(f"{path} is nested too deeply: {FORM.remedy}") from None
    except ValueError:
        document, whole = _salvage(text), False
    header = document.get("otherData") if isinstance(document, dict) else None
    if not whole and header is None and document["traceEvents"]:
        header = {"format": FORMAT, "version": FORM.version}  # was to follow the events
    if not isinstance(header, dict) or header.get("format") != FORMAT:
        raise Unreadable(f"{path}: not a record of quilmrun-record; give the file of its option -o")
    check_version(header, path, FORM)
    record = _read_header(Path(path), header)
    record.part = record.complete and not whole
    record.complete = record.complete and whole
    _read_events(record, decoded(list[_Event], document.get("traceEvents") or [], path, FORM))
    return record


def _no_number(text: str) -> float:
    raise ValueError(f"{text} is no number of JSON")


def _salvage(text: str) -> dict[str, Any]:
    """The header and the events that are whole in a text that breaks off somewhere."""
    document: dict[str, Any] = {"traceEvents": list(_whole_events(text))}
    header = re.search(r'"otherData"\s*:\s*', text)
    if header:
        try:
            document["otherData"] = json.JSONDecoder().raw_decode(text, header.end())[0]
        except (ValueError, RecursionError):
            pass
    return document


def _whole_events(text: str) -> Iterator[Any]:
    """The elements of the array traceEvents, up to the first that is not whole."""
    decoder, separator = json.JSONDecoder(), re.compile(r"[\s,]*")
    start = re.search(r'"traceEvents"\s*:\s*\[', text)
    position = start.end() if start else len(text)
    while True:
        match = separator.match(text, position)
        position = match.end() if match else position
        try:
            event, position = decoder.raw_decode(text, position)
        except (ValueError, RecursionError):
            return
        yield event


def _read_header(path: Path, header: dict[str, Any]) -> Record:
    facts = decoded(_Header, header, path, FORM)
    return Record(path, facts.command, facts.library, facts.complete, facts.exit_status,
                  facts.start_us, facts.recorder_cost_us, facts.dropped,
                  {name: row for name, row in facts.statistics.items() if row and row.count})


def _read_events(record: Record, events: list[_Event]) -> None:
    """Sorts the events into calls and memory, with times counted from the first of them."""
    known = [(event.ts, event) for event in events if event.ts is not None]
    origin = min((at for at, _ in known), default=0.0)
    for at, event in known:
        at_ms, arguments = (at - origin) / 1000.0, event.args
        if event.name.startswith("quilm_") and event.ph == "X":
            record.calls.append(Call(event.name, at_ms, event.dur / 1000.0, arguments.result,
                                     arguments.group))
        elif event.name.startswith("quilm_") and event.ph == "B":
            record.unfinished = event.name
        elif event.ph == "C" and arguments.bytes is not None:
            record.memory.append(MemoryPoint(at_ms, arguments.bytes))
    record.calls.sort(key=lambda call: call.start_ms)
    record.memory.sort(key=lambda point: point.at_ms)
