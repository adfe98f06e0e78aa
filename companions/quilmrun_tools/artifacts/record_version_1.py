"""Records of version 1, and those that something else wrote anew: all is read, and the figures that
version 2 has are made of the events."""

from __future__ import annotations

import json
import re
import statistics
from collections import Counter
from dataclasses import dataclass, field
from typing import Any, Iterator

from quilmrun_tools.artifacts.record_figures import Distribution
from quilmrun_tools.common.decoding import encode
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, read_regular
from quilmrun_tools.common.json_files import Format, decoded

_BINS = 500
_MOST_MEMORY = 4096


@dataclass(frozen=True)
class Arguments:
    """What an event says of its call, or of device memory."""

    result: int | str | None = None
    group: int | None = None
    bytes: int | None = None
    complete: bool = True


@dataclass(frozen=True)
class Event:
    """A trace event; times in microseconds."""

    name: str = ""
    ph: str = ""
    ts: float | None = None  # events without it describe the trace itself
    dur: float = 0.0
    args: Arguments = field(default_factory=Arguments)

    @property
    def start(self) -> float:
        """When it began, in milliseconds."""
        return (self.ts or 0.0) / 1000.0

    @property
    def is_call(self) -> bool:
        """Whether it is a call that returned."""
        return self.name.startswith("quilm_") and self.ph == "X"

    @property
    def is_execution(self) -> bool:
        """Whether it is an execution that succeeded."""
        return self.is_call and self.name == "quilm_mdl_execute" and not self.args.result


def read_whole(path: AnyPath, form: Format) -> tuple[Any, Any, bool]:
    """The head of a file, its events, and whether it breaks off."""
    text = read_regular(path).decode("utf-8", "replace")
    try:
        document, part = json.loads(text, parse_constant=_no_number), False
    except RecursionError:
        raise Unreadable(f"{path} is nested too deeply: {form.remedy}") from None
    except ValueError:
        document, part = _salvage(text), True
    if not isinstance(document, dict):
        return None, [], part
    head, events = document.get("otherData"), document.get("traceEvents") or []
    if part and head is None and events:
        head = {"format": form.name, "version": 1}  # was to follow the events
    return head, events, part


def _no_number(text: str) -> float:
    raise ValueError(f"{text} is no number of JSON")


def _salvage(text: str) -> dict[str, Any]:
    """The head and the events that are whole in a text that breaks off somewhere."""
    document: dict[str, Any] = {"traceEvents": list(_whole_events(text))}
    head = re.search(r'"otherData"\s*:\s*', text)
    if head:
        try:
            document["otherData"] = json.JSONDecoder().raw_decode(text, head.end())[0]
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


def figures_of(head: dict[str, Any], events: object, path: AnyPath, form: Format) -> dict[str, Any]:
    """What version 2 has besides the head of version 1."""
    known = sorted((event for event in decoded(list[Event], events, path, form)
                    if event.ts is not None), key=lambda event: event.start)
    calls = [event for event in known if event.is_call]
    executions = [event for event in calls if event.is_execution]
    groups = [event for event in known if re.fullmatch(r"group \d+", event.name)
              and event.args.complete]
    durations = _durations(executions, groups)
    rows = head.get("statistics")
    figures: dict[str, Any] = {
        "statistics": {**_rows(durations), **(rows if isinstance(rows, dict) else {})},
        "functions": _functions(calls), "histograms": _histograms(durations),
        "output_types": [event.args.result for event in calls if event.args.group is None
                         and event.name == "quilm_mdl_get_output_data_type"
                         and isinstance(event.args.result, int)],
        "unfinished": next((event.name for event in reversed(known) if event.ph == "B"), None),
        "memory": _memory([event for event in known if event.ph == "C"])}
    if calls:
        end = max(call.start + call.dur / 1000 for call in calls)
        figures["span"] = end - calls[0].start
    count = 1 + max((event.args.group or 0 for event in executions), default=-1)
    figures |= {"course": _course(executions, count), "tenths": _tenths(executions[1:], count),
                "trace": {"inferences": count, "kept": count}}
    if groups:
        figures |= _loop(groups)
    return figures


def _durations(executions: list[Event], groups: list[Event]) -> dict[str, list[float]]:
    return {"warm_up": _ms(executions[:1]), "execute": _ms(executions[1:]),
            "inference": _ms(groups)}


def _ms(events: list[Event]) -> list[float]:
    return [event.dur / 1000.0 for event in events]


def _rows(durations: dict[str, list[float]]) -> dict[str, Any]:
    return {name: encode(row) for name, values in durations.items()
            if (row := Distribution.of(values))}


def _functions(calls: list[Event]) -> dict[str, Any]:
    by_name: dict[str, list[float]] = {}
    for call in calls:
        by_name.setdefault(call.name, []).append(call.dur / 1000.0)
    return {name: {"count": len(values), "failed": 0, "total": sum(values), "min": min(values),
                   "max": max(values)} for name, values in by_name.items()}


def _histograms(durations: dict[str, list[float]]) -> dict[str, Any]:
    return {name: [list(one) for one in
                   sorted(Counter(float(f"{value:.4g}") for value in values).items())]
            for name, values in durations.items() if len(values) > 1}


def _course(executions: list[Event], count: int) -> dict[str, Any]:
    width = max(1, -(-count // _BINS))
    bins: dict[int, list[Event]] = {}
    for event in executions:
        bins.setdefault((event.args.group or 0) // width, []).append(event)
    filled = [(events[0].start, _ms(events)) for _, events in sorted(bins.items())]
    return {"inferences_per_bin": width, "inference": [index * width for index in sorted(bins)],
            "at": [at for at, _ in filled],
            "executions": [len(values) for _, values in filled],
            "min": [min(values) for _, values in filled],
            "median": [statistics.median(values) for _, values in filled],
            "max": [max(values) for _, values in filled]}


def _tenths(executions: list[Event], count: int) -> list[Any]:
    tenths: list[list[float]] = [[] for _ in range(10)]
    for event in executions:
        tenths[(event.args.group or 0) * 10 // count].append(event.dur / 1000.0)
    return [row and encode(row) for row in map(Distribution.of, tenths)]


def _memory(points: list[Event]) -> dict[str, Any]:
    """Of very many points, the highest of each stretch."""
    sizes = [[event.start, event.args.bytes or 0] for event in points]
    width = max(1, -(-len(sizes) // _MOST_MEMORY))
    return {"peak_bytes": max((event.args.bytes or 0 for event in points), default=0),
            "course": [max(sizes[at:at + width], key=lambda point: point[1])
                       for at in range(0, len(sizes), width)]}


def _loop(groups: list[Event]) -> dict[str, Any]:
    ms = groups[-1].start + groups[-1].dur / 1000.0 - groups[0].start
    slowest = sorted(groups, key=lambda event: -event.dur)[:20]
    return {"loop": {"begun": len(groups), "inferences": len(groups), "ms": ms,
                     "inferences_per_second": 1000.0 * len(groups) / ms if ms > 0 else 0.0},
            "slowest": [[int(event.name.split()[1]), event.dur / 1000.0] for event in slowest]}
