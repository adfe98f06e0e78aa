"""The figures of a run that the report shows and `--json` writes."""

from __future__ import annotations

import math
from dataclasses import asdict, dataclass, field
from typing import Any

from quilmrun_tools.artifacts.run_outputs import Sources, read_run_outputs
from quilmrun_tools.artifacts.record import Record
from quilmrun_tools.artifacts.record_figures import Distribution
from quilmrun_tools.common.decoding import encode
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.report.run import Run
from quilmrun_tools.report.statistics import Change, trend_of, variation_of
from quilmrun_tools.report.verdict import judge

MOST_FUNCTIONS = 12  # of the table of runtime calls; the rest is summed up

PACE = "pace"  # by the time stamps of the outputs, where there is no record
# What the recorder tells apart, and how the page calls it.
PHASES = {"load": "Model load", "warm_up": "First execution (warm-up)",
          "execute": "All other executions", "execute_first": "– first of an inference",
          "execute_repeated": "– its repetitions (-p 1)", "staging": "Staging of inputs",
          "write_outputs": "Writing of outputs", "inference": "Whole inferences",
          PACE: "From one inference to the next"}


@dataclass(frozen=True)
class FunctionCost:
    """What the calls of one runtime function took; times in milliseconds."""

    function: str
    calls: int
    total_ms: float
    mean_ms: float
    max_ms: float
    share: float  # of the time from the first call to the end of the last


@dataclass
class Figures:
    """Times in milliseconds, sizes in bytes; None or empty where nothing tells."""

    phases: dict[str, Distribution] = field(default_factory=dict)
    functions: list[FunctionCost] = field(default_factory=list)
    span_ms: float = 0.0
    peak_memory: int | None = None
    by_clock: float | None = None  # inferences a second, over the whole loop
    histograms: dict[str, list[tuple[float, int]]] = field(default_factory=dict)
    course_ms: list[float] = field(default_factory=list)  # executions, or medians of neighbours
    differences: list[tuple[int, float]] = field(default_factory=list)  # inference, largest

    @property
    def execute(self) -> Distribution | None:
        return self.phases.get("execute")

    @property
    def trend(self) -> Change | None:
        """How executions changed from the first tenth of the run to the last."""
        return trend_of(self.course_ms)

    @property
    def variation(self) -> float:
        """The coefficient of variation of executions."""
        return variation_of(self.histograms.get("execute", []))

    @property
    def worst_difference(self) -> float | None:
        """The largest absolute difference of any output from its reference."""
        return max((value for _, value in self.differences), default=None)


def figures_of(run: Run) -> Figures:
    """Everything about a run that is a number."""
    figures = Figures(differences=run.comparison.differences if run.comparison else [])
    if run.record:
        figures.phases = {name: distribution for name in PHASES
                          if (distribution := run.record.statistics.get(name))}
        if "execute_repeated" not in figures.phases:  # then all are the first of an inference
            figures.phases.pop("execute_first", None)
        figures.span_ms = run.record.span_ms
        figures.functions = function_costs(run.record)
        figures.peak_memory = run.record.memory.peak_bytes or None
        figures.by_clock = run.record.loop.per_second or None
        figures.histograms = run.record.histograms
        bins = [*run.record.course.bins()]
        # The warm-up is one of the first bin's executions; a bin of its own is left out.
        figures.course_ms = [one.median_ms for one in
                             (bins[1:] if bins and bins[0].executions == 1 else bins)]
    elif pace := Distribution.of(_pace(run)):
        figures.phases = {PACE: pace}
    return figures


def _pace(run: Run) -> list[float]:
    """Milliseconds from the outputs of one inference to those of the next, by their time stamps;
    outputs are looked for in the run's folder and in `out` below it."""
    log = str(run.found["log"]) if run.log else None
    for folder in (run.folder, run.folder / "out") if run.folder else ():
        try:
            found = read_run_outputs(str(folder), Sources(log))
        except Unreadable:
            continue
        stamps = [last for _, last in found.folder.stamps()]
        return [(after - before) / 1000 for before, after in zip(stamps, stamps[1:])]
    return []


def function_costs(record: Record) -> list[FunctionCost]:
    """Every runtime function that was called, by the time that its calls took in all."""
    span = record.span_ms or 1.0
    costs = [FunctionCost(name, totals.count, totals.total_ms, totals.total_ms / totals.count,
                          totals.max_ms, totals.total_ms / span)
             for name, totals in record.functions.items() if totals.count]
    return sorted(costs, key=lambda cost: -cost.total_ms)


def calls_table(sides: list[Figures]) -> list[tuple[str, list[FunctionCost | None]]]:
    """Functions and what each side spent in them, longest first; the short ones as one row, and
    last what was spent outside of all calls, which has no count."""
    costs = [{cost.function: cost for cost in figures.functions} for figures in sides]
    names = sorted(dict.fromkeys(name for side in costs for name in side),
                   key=lambda name: -max(side[name].total_ms for side in costs if name in side))
    rows = [(name, [side.get(name) for side in costs]) for name in names[:MOST_FUNCTIONS]]
    others = set(names[MOST_FUNCTIONS:])
    if others:
        rows.append((f"{len(others)} other functions", [
            _sum_of([cost for cost in side.values() if cost.function in others])
            for side in costs]))
    rows.append(("outside of the calls", [_outside(figures) for figures in sides]))
    return rows


def _sum_of(costs: list[FunctionCost]) -> FunctionCost | None:
    if not costs:
        return None
    calls, total = sum(cost.calls for cost in costs), sum(cost.total_ms for cost in costs)
    return FunctionCost("", calls, total, total / calls, max(cost.max_ms for cost in costs),
                        sum(cost.share for cost in costs))


def _outside(figures: Figures) -> FunctionCost | None:
    if not figures.functions:
        return None
    total = max(0.0, figures.span_ms - sum(cost.total_ms for cost in figures.functions))
    return FunctionCost("", 0, total, 0.0, 0.0, total / (figures.span_ms or 1.0))


def as_json(run: Run, figures: Figures) -> dict[str, Any]:
    """A run's figures for machines."""
    verdict = judge(run)
    return {
        "label": run.label, "verdict": verdict.state, "reasons": verdict.sentences,
        "model": run.model, "files": {part: str(path) for part, path in run.found.items()},
        "missing": [{"part": gap.part, "reason": gap.reason, "remedy": gap.remedy}
                    for gap in run.gaps],
        "inferences": run.log.executed if run.log else None,
        "statistics_ms": {name: asdict(value) for name, value in figures.phases.items()},
        "calls": [asdict(cost) for cost in figures.functions],
        "executions_per_second_back_to_back":
            figures.execute.per_second if figures.execute else None,
        "inferences_per_second_by_clock": figures.by_clock,
        "trend": asdict(figures.trend) if figures.trend else None,
        "coefficient_of_variation": figures.variation or None,
        "span_ms": figures.span_ms or None, "peak_device_memory_bytes": figures.peak_memory,
        "memory_report": run.memory,
        "outputs": encode(run.comparison.outputs) if run.comparison else None,
        "worst_difference": _for_json(figures.worst_difference),
    }


def _for_json(value: float | None) -> float | str | None:
    """JSON knows no infinity: it is a text there."""
    return value if value is None or math.isfinite(value) else str(value)
