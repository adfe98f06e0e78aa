"""What changed between two runs, and whether that is more than chance."""

from __future__ import annotations

from dataclasses import asdict

from quilmrun_tools.common.units import signed_percent
from quilmrun_tools.report.figures import Figures
from quilmrun_tools.report.statistics import (
    Change, Sample, alike, change_of_mean, change_of_percentile, inverse)

PERCENTILES = {"p50": 50.0, "p90": 90.0, "p95": 95.0, "p99": 99.0}

Changes = dict[str, dict[str, Change | None]]  # by phase, then by the field of its distribution


def changes_of(before: Figures, after: Figures) -> Changes:
    """Of every phase that both runs have: the changes of its percentiles, of its mean and of its
    rate; None where single durations tell nothing."""
    return {phase: _of_phase(before, after, phase)
            for phase in after.phases if phase in before.phases}


def _of_phase(before: Figures, after: Figures, phase: str) -> dict[str, Change | None]:
    first, second = (Sample(side.histograms.get(phase, []), alike(side.course_ms))
                     for side in (before, after))
    found = {name: change_of_percentile(first, second, percent)
             for name, percent in PERCENTILES.items()}
    found["mean"] = change_of_mean(first, second)
    found["per_second"] = inverse(found["mean"])
    return found


def in_words(change: Change | None) -> str:
    """A change with its interval, as the page and the summary say it."""
    if change is None:
        return "–"
    if not change.shown:
        return "no difference shown"
    return (f"{signed_percent(change.share)} ({signed_percent(change.low)} to "
            f"{signed_percent(change.high)})")


def as_json(changes: Changes) -> dict[str, dict[str, dict[str, object] | None]]:
    """For machines: shares of 1."""
    return {phase: {name: {**asdict(change), "shown": change.shown} if change else None
                    for name, change in fields.items()} for phase, fields in changes.items()}
