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

FORMAT = "quilmrun-record"
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
    min: float
    mean: float
    p50: float
    p90: float
    p95: float
    p99: float
    max: float
    per_second: float

    @staticmethod
    def of(durations: list[float]) -> "Distribution | None":
        """The distribution of durations in milliseconds; None when there are none."""
        if not durations:
            return None
        ranked, count, total = sorted(durations), len(durations), sum(durations)
        return Distribution(count, ranked[0], total / count,
                            *(_percentile(ranked, percent) for percent in PERCENTILES),
                            ranked[-1], 1000.0 * count / total if total > 0 else 0.0)

    @staticmethod
    def from_json(values: Any) -> "Distribution | None":
        """The distribution that the recorder computed itself; None when there is none."""
        names = Distribution.__dataclass_fields__
        if not isinstance(values, dict) or not values.get("count"):
            return None
        if not all(isinstance(values.get(name, 0), (int, float)) for name in names):
            return None
        return Distribution(**{name: values.get(name, 0) for name in names})


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
    def peak_memory(self) -> int | None:
        """The most device memory in use at once, in bytes."""
        return max((point.bytes for point in self.memory), default=None)

    def distribution(self, kind: str) -> Distribution | None:
        """The recorder's own figures of a kind; those of executions also without them."""
        executions = {"warm_up": self.executions[:1], "execute": self.executions[1:]}.get(kind, [])
        return self.statistics.get(kind) or Distribution.of(
            [call.duration_ms for call in executions])


def read_record(path: Path) -> Record:
    """Reads a record, whole or cut short; raises Unreadable with a line that says what to do."""
    try:
        text = path.read_text(encoding="utf-8", errors="replace")
    except OSError as error:
        raise Unreadable(f"{path}: {error.strerror}; record the run with quilmrun-record -o "
                         f"{path} quilmrun ...") from error
    try:
        document, whole = json.loads(text), True
    except ValueError:
        document, whole = _salvage(text), False
    header = document.get("otherData") if isinstance(document, dict) else None
    if not whole and header is None and document["traceEvents"]:
        header = {"format": FORMAT}  # was to follow the events
    if not isinstance(header, dict) or header.get("format") != FORMAT:
        raise Unreadable(f"{path}: not a record of quilmrun-record; give the file of its option -o")
    record = _read_header(path, header)
    record.part = record.complete and not whole
    record.complete = record.complete and whole
    _read_events(record, document.get("traceEvents") or [])
    return record


def _salvage(text: str) -> dict[str, Any]:
    """The header and the events that are whole in a text that breaks off somewhere."""
    document: dict[str, Any] = {"traceEvents": list(_whole_events(text))}
    header = re.search(r'"otherData"\s*:\s*', text)
    if header:
        try:
            document["otherData"] = json.JSONDecoder().raw_decode(text, header.end())[0]
        except ValueError:
            pass
    return document


def _whole_events(text: str) -> Iterator[Any]:
    """The elements of the array traceEvents, up to the first that is not whole."""
    decoder, separator = json.JSONDecoder(), re.compile(r"[\s,]*")
    start = re.search(r'"traceEvents"\s*:\s*\[', text)
    position = start.end() if start else len(text)
    while True:
        position = separator.match(text, position).end()
        try:
            event, position = decoder.raw_decode(text, position)
        except ValueError:
            return
        yield event


def _read_header(path: Path, header: dict[str, Any]) -> Record:
    status = header.get("exit_status")
    statistics = header.get("statistics")
    record = Record(
        path, [str(word) for word in header.get("command") or []], str(header.get("library", "")),
        complete=header.get("complete") is True,
        exit_status=status if isinstance(status, int) else None,
        start_us=int(header.get("start_us") or 0),
        recorder_cost_us=header.get("recorder_cost_us"), dropped=int(header.get("dropped") or 0))
    for name, values in (statistics if isinstance(statistics, dict) else {}).items():
        distribution = Distribution.from_json(values)
        if distribution:
            record.statistics[name] = distribution
    return record


def _read_events(record: Record, events: list[Any]) -> None:
    """Sorts the events into calls and memory, with times counted from the first of them."""
    known = [event for event in events
             if isinstance(event, dict) and isinstance(event.get("ts"), (int, float))]
    origin = min((event["ts"] for event in known), default=0)
    for event in known:
        at_ms = (event["ts"] - origin) / 1000.0
        arguments = event.get("args") or {}
        name = str(event.get("name", ""))
        if name.startswith("quilm_") and event.get("ph") == "X":
            record.calls.append(Call(name, at_ms, float(event.get("dur") or 0) / 1000.0,
                                     arguments.get("result"), arguments.get("group")))
        elif name.startswith("quilm_") and event.get("ph") == "B":
            record.unfinished = name
        elif event.get("ph") == "C" and isinstance(arguments.get("bytes"), int):
            record.memory.append(MemoryPoint(at_ms, arguments["bytes"]))
    record.calls.sort(key=lambda call: call.start_ms)
    record.memory.sort(key=lambda point: point.at_ms)
