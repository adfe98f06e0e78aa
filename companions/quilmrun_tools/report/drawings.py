"""The drawings that every page has, where there is something to draw."""

from __future__ import annotations

import math
from typing import Callable, Sequence

from quilmrun_tools.common import units
from quilmrun_tools.report import charts
from quilmrun_tools.report.charts import Axis, Chart, Mark, Series
from quilmrun_tools.report.side import Side

DURATION = Axis("duration", "ms")
START = Axis("start", "ms", low=0.0)


def charts_of(sides: list[Side]) -> dict[str, Chart]:
    """Histogram, course of the run, memory and differences, by their names in the page."""
    # The run itself comes first, so that the other one is drawn over it.
    ordered = sorted(sides, key=lambda side: side.series)
    made = {"histogram": _histogram(ordered), "time line": _course(ordered),
            "memory": _memory(ordered), "differences": _differences(ordered)}
    return {name: chart for name, chart in made.items() if chart}


def _histogram(sides: list[Side]) -> Chart | None:
    runs = [(side.label, side.colour, _executions(side)) for side in sides]
    if not any(durations for _, _, durations in runs):
        return None
    return charts.histogram(runs, DURATION, _percentiles(sides))


def _course(sides: list[Side]) -> Chart | None:
    series = []
    for side in sides:
        bins = [*side.run.record.course.bins()] if side.run.record else []
        if any(one.executions > 1 for one in bins):
            series.append(Series(side.label, "band", side.colour,
                                 [(one.at_ms, one.min_ms, one.max_ms) for one in bins]))
        if bins:
            series.append(Series(side.label, "dots", side.colour, [
                (one.at_ms, one.median_ms, one.first_inference) for one in bins], "inference"))
    return charts.course(series, START, DURATION, "Executions in the course of the run") \
        if series else None


def _memory(sides: list[Side]) -> Chart | None:
    most = max((side.figures.peak_memory or 0 for side in sides), default=0)
    unit, size = units.size_unit(most)  # so that ticks are round numbers of it
    return _per_run(sides, "steps", lambda side: [
        (at, used / size)
        for at, used in (side.run.record.memory.course if side.run.record else [])],
        (Axis("time", "ms", low=0.0), Axis("in use", unit)), "Device memory in use")


def _differences(sides: list[Side]) -> Chart | None:
    if not any(len(side.figures.differences) > 1 for side in sides):
        return None
    comparison = sides[0].run.comparison
    limit = comparison.limits.atol if comparison else None
    marks = [Mark("y", limit, "limit")] if limit is not None else []
    return _per_run(sides, "dots", lambda side: [
        (float(index), value) for index, value in side.figures.differences if math.isfinite(value)],
        (Axis("inference", low=0.0, whole=True), Axis("largest difference")),
        "Largest difference by inference", marks=marks)


def _per_run(sides: list[Side], kind: str, points: Callable[[Side], Sequence[charts.Point]],
             axes: tuple[Axis, Axis], described: str, third: str = "",
             marks: Sequence[Mark] = ()) -> Chart | None:
    """One series for each run that has points; None when none has."""
    series = [Series(side.label, kind, side.colour, found, third) for side in sides
              if (found := points(side))]
    return charts.course(series, *axes, described, marks) if series else None


def _executions(side: Side) -> list[float]:
    """Durations, without the warm-up unless there is nothing else."""
    record = side.run.record
    return (record.durations("execute") or record.durations("warm_up")) if record else []


def _percentiles(sides: list[Side]) -> list[Mark]:
    """Percentiles on the histogram: four of one run, two of each when there are two."""
    shown = ("p50", "p90", "p95", "p99") if len(sides) == 1 else ("p50", "p99")
    marks = []
    for side in sides:
        for name in shown if side.figures.execute else ():
            value = getattr(side.figures.execute, name)
            owner = f"{side.label} " if len(sides) > 1 else ""
            marks.append(Mark("x", value, f"{owner}{name} {units.milliseconds(value)}"))
    return marks
