"""Makes one record of those of several runs that were parts of one: as if their calls had come one
part after the other. Counts and totals are exact, percentiles as exact as the histograms are."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass, replace
from typing import BinaryIO, Callable, Iterable, Iterator, Optional, Sequence

from quilmrun_tools.artifacts.record import FORM, Record, read_record
from quilmrun_tools.artifacts.record_figures import (Course, CourseBin, Distribution,
                                                     FunctionTotals, Loop, Memory, TraceExtent)
from quilmrun_tools.common.json_files import headed

_MOST_BINS = 500  # of the course
_MOST_POINTS = 1000  # of the memory's course
_SLOWEST = 20
_WITHIN = 0.002  # durations that are as good as the same
_MOST_TRACE = 64 << 20  # bytes of single calls

Bins = list[tuple[float, int]]


@dataclass(frozen=True)
class RecordPart:
    """A record, the first of its inferences in the whole run, and who made it."""
    path: str
    first: int
    machine: str


def merge_records(parts: Sequence[RecordPart], command: list[str], out: BinaryIO) -> None:
    """Writes the record of all parts, which come in their order; raises Unreadable when one of them
    cannot be read. REQUIRES: at least one part."""
    records = [read_record(part.path) for part in parts]
    offsets = [sum(record.span_ms for record in records[:at]) for at in range(len(records))]
    merged = _figures(records, [part.first for part in parts], offsets)
    merged.command = command
    machines = list(dict.fromkeys(part.machine for part in parts))
    merged.where = replace(records[0].where, name=", ".join(machines)[:200])
    out.write(b'{"displayTimeUnit":"ms","otherData":')
    kept = _Trace(parts, offsets)
    lines = list(kept.lines())
    merged.trace = TraceExtent(merged.loop.begun, kept.inferences,
                               all(record.trace.all_calls for record in records))
    out.write(json.dumps(headed(FORM, merged), allow_nan=False).encode())
    out.write(b',\n"traceEvents":[\n' + b",\n".join(lines) + b"]}\n")


def _figures(records: list[Record], firsts: list[int], offsets: list[float]) -> Record:
    histograms = {kind: _join([_bins(record, kind) for record in records])
                  for kind in dict.fromkeys(kind for record in records
                                            for kind in record.statistics)}
    inferences = sum(record.loop.inferences for record in records)
    spent = sum(record.loop.ms for record in records)
    costs = [record.recorder_cost_us for record in records if record.recorder_cost_us is not None]
    return Record(
        version=FORM.version, library=records[0].library,
        complete=all(record.complete for record in records), exit_status=records[-1].exit_status,
        start_us=min(record.start_us for record in records),
        recorder_cost_us=max(costs, default=None),
        dropped=sum(record.dropped for record in records), unfinished=records[-1].unfinished,
        span_ms=sum(record.span_ms for record in records), output_types=records[0].output_types,
        loop=Loop(sum(record.loop.begun for record in records), inferences, spent,
                  1000 * inferences / spent if spent > 0 else 0.0),
        statistics={kind: _distribution([record.statistics[kind] for record in records
                                         if kind in record.statistics], bins)
                    for kind, bins in histograms.items()},
        functions=_functions(records),
        histograms={kind: bins for kind, bins in histograms.items()
                    if sum(count for _, count in bins) > 1},
        course=_course(records, firsts, offsets), memory=_memory(records, offsets),
        slowest=sorted(((first + inference, duration) for record, first in zip(records, firsts)
                        for inference, duration in record.slowest),
                       key=lambda one: (-one[1], one[0]))[:_SLOWEST])


# ---- Durations ----------------------------------------------------------------------------------

def _bins(record: Record, kind: str) -> Bins:
    row = record.statistics.get(kind)
    if kind in record.histograms or row is None:
        return record.histograms.get(kind, [])
    return [(row.mean, row.count)]


def _join(all_bins: Iterable[Bins]) -> Bins:
    """All durations, those that are as good as the same together."""
    joined: Bins = []
    start = total = 0.0
    for duration, count in sorted(one for bins in all_bins for one in bins):
        if joined and duration <= start * (1 + _WITHIN):
            total += duration * count
            together = joined[-1][1] + count
            joined[-1] = (total / together, together)
        else:
            start, total = duration, duration * count
            joined.append((duration, count))
    return joined


def _distribution(rows: list[Distribution], bins: Bins) -> Distribution:
    count = sum(row.count for row in rows)
    mean = sum(row.count * row.mean for row in rows) / count
    p50, p90, p95, p99 = (_percentile(bins, share) for share in (0.5, 0.9, 0.95, 0.99))
    return Distribution(count, min(row.min for row in rows), mean, p50, p90, p95, p99,
                        max(row.max for row in rows), 1000 / mean if mean > 0 else 0.0, _WITHIN)


def _percentile(bins: Bins, share: float) -> float:
    """The duration at a place among all of them."""
    left = share * (sum(count for _, count in bins) - 1)
    for duration, count in bins:
        left -= count
        if left < 0:
            return duration
    return bins[-1][0]


def _functions(records: list[Record]) -> dict[str, FunctionTotals]:
    merged: dict[str, FunctionTotals] = {}
    for record in records:
        for name, row in record.functions.items():
            old = merged.get(name)
            merged[name] = row if old is None else FunctionTotals(
                old.count + row.count, old.failed + row.failed, old.total_ms + row.total_ms,
                min(old.min_ms, row.min_ms), max(old.max_ms, row.max_ms))
    return merged


# ---- What happened when -------------------------------------------------------------------------

def _course(records: list[Record], firsts: list[int], offsets: list[float]) -> Course:
    bins = [CourseBin(first + one.first_inference, offset + one.at_ms, one.executions, one.min_ms,
                      one.median_ms, one.max_ms)
            for record, first, offset in zip(records, firsts, offsets)
            for one in record.course.bins()]
    every = max(-(-len(bins) // _MOST_BINS), 1)
    joined = [_bin_of(bins[at:at + every]) for at in range(0, len(bins), every)]
    width = max((record.course.inferences_per_bin for record in records), default=1)
    return Course(every * width, [one.first_inference for one in joined],
                  [one.at_ms for one in joined], [one.executions for one in joined],
                  [one.min_ms for one in joined], [one.median_ms for one in joined],
                  [one.max_ms for one in joined])


def _bin_of(bins: list[CourseBin]) -> CourseBin:
    medians = sorted((one.median_ms, one.executions) for one in bins)
    return CourseBin(bins[0].first_inference, bins[0].at_ms, sum(one.executions for one in bins),
                     min(one.min_ms for one in bins), _percentile(medians, 0.5),
                     max(one.max_ms for one in bins))


def _memory(records: list[Record], offsets: list[float]) -> Memory:
    points = [(offset + at, used) for record, offset in zip(records, offsets)
              for at, used in record.memory.course]
    every = max(-(-len(points) // _MOST_POINTS), 1)
    # Of points that go together the highest counts.
    return Memory(max((record.memory.peak_bytes for record in records), default=0),
                  [(points[at][0], max(used for _, used in points[at:at + every]))
                   for at in range(0, len(points), every)])


class _Trace:  # pylint: disable=too-few-public-methods
    """The single calls of all parts, each machine a process of its own; the parts are left out from
    where these become too many."""

    def __init__(self, parts: Sequence[RecordPart], offsets: list[float]) -> None:
        self._parts = parts
        self._offsets = offsets
        self.inferences = 0  # that are shown

    def lines(self) -> Iterator[bytes]:
        """Events that belong together on a line."""
        machines = list(dict.fromkeys(part.machine for part in self._parts))
        for number, machine in enumerate(machines, 1):
            yield _text([{"name": "process_name", "ph": "M", "pid": number,
                          "args": {"name": machine}}])
        size = 0
        for part, offset in zip(self._parts, self._offsets):
            move = _mover(part.first, offset, machines.index(part.machine) + 1)
            for events in _events(part.path):
                line = _text([move(event) for event in events if event.get("ph") != "M"])
                self.inferences += line.count(b'"name":"group ')
                size += len(line)
                if line:
                    yield line
            if size > _MOST_TRACE:
                return


def _text(events: list[dict[str, object]]) -> bytes:
    return b",".join(json.dumps(event, separators=(",", ":")).encode() for event in events)


def _events(path: str) -> Iterator[list[dict[str, object]]]:
    with open(path, "rb") as file:
        for line in file:
            if line.startswith(b'"traceEvents":['):
                break
        for line in file:
            yield json.loads(b"[" + line.rstrip().removesuffix(b",").removesuffix(b"]}") + b"]")


def _mover(first: int, offset: float,
           process: int) -> Callable[[dict[str, object]], dict[str, object]]:
    def move(event: dict[str, object]) -> dict[str, object]:
        moved: dict[str, object] = {**event, "pid": process}
        at, arguments, name = event.get("ts"), event.get("args"), str(event.get("name"))
        if isinstance(at, (int, float)):
            moved["ts"] = round(at + 1000 * offset, 3)
        if isinstance(arguments, dict) and isinstance(arguments.get("group"), int):
            moved["args"] = {**arguments, "group": arguments["group"] + first}
        group: Optional[re.Match[str]] = re.fullmatch(r"group (\d+)", name)
        if group:
            moved["name"] = f"group {first + int(group.group(1))}"
        return moved
    return move
