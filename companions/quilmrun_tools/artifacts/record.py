"""record.json, which quilmrun-record writes: the figures of a run, then its calls as a trace.

The figures stand in `otherData` at the head of the file, so that read_record() reads no more than
some hundred kilobytes however long the run was. They are of all calls. The trace behind them is
for viewers, and for who wants single calls (record_events.py): it leaves out calls that only ask,
and most inferences of a very long run; `Record.trace` tells.

Version 1 had a few of the figures, and all calls; the other figures are made of these. A record
whose run was cut short, by a signal or a crash of the library, has `complete` false and names the
function in `unfinished`; of a file that breaks off itself, `part` is true.

All times are in milliseconds; moments count from the start of the recording on, which was
`start_us` microseconds after 1970 or, with its zone, `where.date`.
"""

from __future__ import annotations

import os
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, BinaryIO, Sized

from quilmrun_tools.artifacts.record_figures import (
    Course, Distribution, FunctionTotals, Loop, Memory, TraceExtent, Where)
from quilmrun_tools.artifacts.record_version_1 import figures_of, read_whole
from quilmrun_tools.common.decoding import json_name, not_in_json
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, cannot_read, open_regular
from quilmrun_tools.common.json_files import Format, check_version, decoded, parse_json

FORM = Format("quilmrun-record", 2,
              "record the run again with quilmrun-record -o FILE quilmrun ...")
_START = b'{"displayTimeUnit":"ms","otherData":'
_EVENTS = b',\n"traceEvents":['
_END = b"]}\n"
_BLOCK = 1 << 16
_MOST_HEAD = 1 << 24  # bytes; a head has some hundred kilobytes


@dataclass
class Record:
    """Everything that record.json says, but for single calls."""

    path: Path = not_in_json(default=Path())
    part: bool = not_in_json(default=False)
    version: int = 1
    command: list[str] = field(default_factory=list)
    library: str = ""  # path of the real libquilm.so
    complete: bool = False
    exit_status: int | None = None  # 128 and the number of the signal that ended the tool
    start_us: int = 0
    recorder_cost_us: float | None = None  # what noting one call takes
    dropped: int = 0  # calls that are missing, for want of space
    unfinished: str | None = None
    span_ms: float = json_name("span", default=0.0)  # first call to end of the last one
    output_types: list[int] = field(default_factory=list)  # their codes
    where: Where = field(default_factory=Where)  # version 1 does not tell
    loop: Loop = field(default_factory=Loop)
    # By "load", "warm_up", "execute", "execute_first", "execute_repeated", "staging",
    # "write_outputs" and "inference"; "execute" has all executions but the warm-up. Kinds without
    # any duration are missing.
    statistics: dict[str, Distribution] = field(default_factory=dict)
    functions: dict[str, FunctionTotals] = field(default_factory=dict)  # those that were called
    # By the same kinds, those of at least two durations: (duration, count), the durations rising,
    # each within 0.2 % of all that it counts. Enough to draw, and to draw samples from.
    histograms: dict[str, list[tuple[float, int]]] = field(default_factory=dict)
    # Executions without the warm-up, by tenths of the run's inferences; None without any.
    tenths: list[Distribution | None] = field(default_factory=list)
    course: Course = field(default_factory=Course)
    memory: Memory = field(default_factory=Memory)
    slowest: list[tuple[int, float]] = field(default_factory=list)  # 20, the slowest first
    trace: TraceExtent = field(default_factory=TraceExtent)

    @property
    def executions(self) -> int:
        """The executions that succeeded, the warm-up included."""
        return sum(row.count for name, row in self.statistics.items()
                   if name in ("warm_up", "execute"))

    def durations(self, kind: str, most: int = 20000) -> list[float]:
        """Durations of a kind, rising: all that there were, to 0.2 %, or evenly chosen ones of
        more than `most`."""
        row, bins = self.statistics.get(kind), self.histograms.get(kind, [])
        every = max(1, sum(count for _, count in bins) / most)
        chosen, passed, due = [], 0, 0.0
        for duration, count in bins:
            passed += count
            while due < passed:
                chosen.append(duration)
                due += every
        return chosen or ([row.mean] if row else [])

    @property
    def inferences(self) -> int:
        """The inferences that got to their end; 0 when nothing tells."""
        row = self.statistics.get("inference")
        return row.count if row else 0


def read_record(path: AnyPath) -> Record:
    """Reads the figures of a record; raises Unreadable with a line that says what to do."""
    with open_regular(path) as file:
        try:
            head, part = _read_head(file, path)
        except OSError as error:
            raise cannot_read(path, error) from error
    events = None
    if head is None:
        head, events, part = read_whole(path, FORM)
    if not isinstance(head, dict) or head.get("format") != FORM.name:
        raise Unreadable(f"{path}: not a record of quilmrun-record; give the file of its option -o")
    check_version(head, path, FORM)
    if head["version"] == 1:
        head = {**head, **figures_of(head, events, path, FORM)}
    record = decoded(Record, _without_empty_rows(head), path, FORM)
    _check(record, path)
    record.path, record.part = Path(path), record.complete and part
    record.complete = record.complete and not part
    return record


def _read_head(file: BinaryIO, path: AnyPath) -> tuple[Any, bool]:
    """The figures, and whether the file breaks off after them; None when laid out otherwise."""
    text = file.read(_BLOCK)
    if not text.startswith(_START):
        return None, False
    while _EVENTS not in text and (more := file.read(_BLOCK)) and len(text) < _MOST_HEAD:
        text += more
    end = text.find(_EVENTS)
    if end < 0:
        raise Unreadable(f"{path} was cut short before its figures end: {FORM.remedy}")
    file.seek(-len(_END), os.SEEK_END)
    return parse_json(text[len(_START):end], path, FORM), file.read() != _END


def _without_empty_rows(head: dict[str, Any]) -> dict[str, Any]:
    """Rows that count nothing have no times."""
    def is_empty(row: object) -> bool:
        return isinstance(row, dict) and row.get("count") == 0
    filled = dict(head)
    if isinstance(head.get("statistics"), dict):
        filled["statistics"] = {name: row for name, row in head["statistics"].items()
                                if not is_empty(row)}
    if isinstance(head.get("tenths"), list):
        filled["tenths"] = [None if is_empty(row) else row for row in head["tenths"]]
    return filled


def _check(record: Record, path: AnyPath) -> None:
    """Raises Unreadable where values that fit their types do not fit each other."""
    course = record.course
    columns: list[Sized] = [course.inference, course.at, course.executions, course.min,
                            course.median, course.max]
    if len(set(map(len, columns))) > 1:
        raise Unreadable(f"{path} is damaged: the columns of its course differ; {FORM.remedy}")
