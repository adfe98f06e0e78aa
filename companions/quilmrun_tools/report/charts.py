"""Drawings of the report: SVG that stretches with the page, with its labels as text beside it.

Marks live in a drawing of 1000 x 300 units that is stretched to the space there is; lines keep
their width. Labels are HTML, placed by percentages, so that they have the size of the page's text
on a telephone as on a wide screen. Colours come from the style sheet.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Callable, Sequence

from markupsafe import Markup, escape

from quilmrun_tools.common.units import Unit, decade_ticks, plain_unit, ticks

WIDTH, HEIGHT = 1000.0, 300.0
BINS = 48
MOST_MARKS = 1500  # more marks than this are thinned out; nobody can tell them apart

UnitFor = Callable[[float], Unit]  # the unit for values up to one


@dataclass(frozen=True)
class Marker:
    """A line across a histogram at a value, and what it says."""

    value: float
    label: str


@dataclass(frozen=True)
class Axis:
    """A range of values, what it is labelled in and about how many labels it gets."""

    low: float
    high: float
    unit_for: UnitFor = plain_unit
    wanted: int = 4
    logarithmic: bool = False

    def share(self, value: float) -> float:
        """Where a value lies in the range, from 0 to 1."""
        inside = min(max(value, self.low), self.high)
        if self.logarithmic:
            return math.log(inside / self.low) / math.log(self.high / self.low)
        return (inside - self.low) / ((self.high - self.low) or 1.0)

    def value(self, share: float) -> float:
        """The value at a share of the range."""
        if self.logarithmic:
            return self.low * (self.high / self.low) ** share
        return self.low + share * (self.high - self.low)

    def write(self, value: float) -> str:
        """A value with its unit, which is the same along a linear axis."""
        return self.unit_for(value if self.logarithmic else self.high).write(value)

    def labels(self) -> list[tuple[float, str]]:
        """Position in percent and text of every tick."""
        if self.logarithmic:
            places = decade_ticks(self.low, self.high, self.wanted)
        else:
            factor = self.unit_for(self.high).factor
            places = [tick / factor
                      for tick in ticks(self.low * factor, self.high * factor, self.wanted)]
        return [(100 * self.share(place), self.write(place)) for place in places]


def _frame(marks: str, across: Axis, up: Axis, described: str, overlay: str = "",
           headroom: int = 0) -> Markup:
    """Puts axes around marks; `headroom` lines of text are kept free above them for labels."""
    grid = "".join(f'<path class="grid" d="M0 {HEIGHT * (1 - place / 100):.1f}H{WIDTH:.0f}"/>'
                   for place, _ in up.labels())
    left = "".join(f'<span style="bottom:{place:.2f}%">{escape(text)}</span>'
                   for place, text in up.labels())
    below = "".join(f'<span style="left:{place:.2f}%">{escape(text)}</span>'
                    for place, text in across.labels())
    widest = max((len(text) for _, text in up.labels()), default=1)
    return Markup(
        f'<div class="chart" style="--headroom:{headroom};--labels:{widest}ch">'
        f'<div class="up">{left}</div><div class="area">{overlay}'
        f'<svg viewBox="0 0 {WIDTH:.0f} {HEIGHT:.0f}" preserveAspectRatio="none" role="img" '
        f'aria-label="{escape(described)}">{grid}{marks}</svg></div>'
        f'<div class="across">{below}</div></div>')


def _x(axis: Axis, value: float) -> float:
    return WIDTH * axis.share(value)


def _y(axis: Axis, value: float) -> float:
    return HEIGHT * (1 - axis.share(value))


def _spreads(values: Sequence[float]) -> bool:
    """Whether values differ so much that only a logarithmic axis shows the small ones."""
    ranked = sorted(values)
    return ranked[0] > 0 and ranked[-1] > 8 * ranked[len(ranked) // 2]


def _histogram_axis(series: Sequence[Sequence[float]], unit: UnitFor) -> Axis:
    """From the least value to the greatest."""
    values = [value for values in series for value in values]
    low, high = min(values), max(values)
    if high <= low:
        low, high = 0.9 * low, 1.1 * high or 1.0
    return Axis(low, high, unit, wanted=3, logarithmic=_spreads(values))


def histogram(series: Sequence[Sequence[float]], markers: Sequence[Marker],
              unit: UnitFor) -> Markup:
    """How often values occur, for one series or two over each other, with markers on top."""
    across = _histogram_axis(series, unit)
    counts = []
    for values in series:
        bins = [0] * BINS
        for value in values:
            bins[min(BINS - 1, int(across.share(value) * BINS))] += 1
        counts.append(bins)
    up = Axis(0, max(max(bins) for bins in counts) * 1.04, wanted=3)
    marks = "".join(_bars(bins, across, up, number) for number, bins in enumerate(counts))
    overlay = "".join(_flag(100 * across.share(marker.value), row, marker)
                      for row, marker in enumerate(markers))
    return _frame(marks, across, up, "Histogram of durations", overlay, headroom=len(markers))


def _bars(bins: list[int], across: Axis, up: Axis, number: int) -> str:
    """One bar per bin that holds something; pointing at it tells its range and count."""
    width = WIDTH / BINS
    parts = []
    for index, count in enumerate(bins):
        if not count:
            continue
        first, end = (across.write(across.value(place / BINS)) for place in (index, index + 1))
        top = _y(up, count)
        parts.append(f'<rect class="bar s{number}" x="{index * width + 1:.1f}" y="{top:.1f}" '
                     f'width="{width - 2:.1f}" height="{HEIGHT - top:.1f}">'
                     f'<title>{escape(first)} to {escape(end)}: {count:,}</title></rect>')
    return "".join(parts)


def _flag(place: float, row: int, marker: Marker) -> str:
    """A marker's text, in a row of its own so that no two can lie over each other."""
    side = "right" if place > 60 else "left"
    position = 100 - place if side == "right" else place
    return (f'<span class="flag {side}" style="{side}:{position:.2f}%;--row:{row}">'
            f'{escape(marker.label)}</span>')


def _thinned(points: Sequence[tuple[float, float]]) -> list[tuple[float, float]]:
    """At most about MOST_MARKS of the points, in which the least and the greatest values stay."""
    if len(points) <= MOST_MARKS:
        return list(points)
    size = math.ceil(2 * len(points) / MOST_MARKS)
    kept = []
    for start in range(0, len(points), size):
        chunk = points[start:start + size]
        kept += sorted({min(chunk, key=lambda point: point[1]),
                        max(chunk, key=lambda point: point[1]), chunk[-1]})
    return kept


def dots(series: Sequence[Sequence[tuple[float, float]]], unit_x: UnitFor, unit_y: UnitFor,
         described: str, level: float | None = None) -> Markup:
    """Points (x, y) of one or two series; a dashed line at a level, such as a limit."""
    every = [point for points in series for point in points]
    high = max([y for _, y in every] + ([level] if level is not None else []))
    right = max(x for x, _ in every) or 1.0
    across = Axis(0.0, right, unit_x)
    up = Axis(0.0, high * 1.06 or 1.0, unit_y, wanted=3)
    if level is None and _spreads([y for _, y in every]):
        up = Axis(min(y for _, y in every) * 0.8, high * 1.2, unit_y, logarithmic=True)
    marks = ""
    for number, points in enumerate(series):
        path = "".join(f"M{_x(across, x):.1f} {_y(up, y):.1f}h0" for x, y in _thinned(points))
        marks += f'<path class="dot s{number}" d="{path}"/>'
    if level is not None:
        marks += f'<path class="level" d="M0 {_y(up, level):.1f}H{WIDTH:.0f}"/>'
    return _frame(marks, across, up, described)


def steps(series: Sequence[Sequence[tuple[float, float]]], unit_x: UnitFor,
          unit_y: UnitFor, described: str) -> Markup:
    """Levels that hold from a point in time (x) to the next, as filled steps."""
    every = [point for points in series for point in points]
    right, high = max(x for x, _ in every) or 1.0, max(y for _, y in every)
    across = Axis(0.0, right, unit_x)
    up = Axis(0.0, high * 1.06 or 1.0, unit_y, wanted=3)
    marks = ""
    for number, points in enumerate(series):
        if not points:
            continue
        path = f"M{_x(across, points[0][0]):.1f} {HEIGHT:.0f}"
        path += "".join(f"H{_x(across, x):.1f}V{_y(up, y):.1f}" for x, y in _thinned(points))
        dense = " dense" if len(points) > 200 else ""
        marks += f'<path class="level-area s{number}{dense}" d="{path}H{WIDTH:.0f}V{HEIGHT:.0f}Z"/>'
    return _frame(marks, across, up, described)


def pairs(output: Sequence[float], reference: Sequence[float]) -> Markup:
    """Few values of an output beside those of its reference: a ring for the reference, a dot for
    the output, a line between them for the difference."""
    finite = [value for value in (*output, *reference) if math.isfinite(value)] or [0.0]
    low, high = min(0.0, *finite), max(0.0, *finite)
    margin = 0.06 * (high - low) or 1.0
    across = Axis(-0.5, len(output) - 0.5)
    up = Axis(low - (margin if low else 0), high + margin, wanted=3)
    places = [(_x(across, index), value, other) for index, (value, other)
              in enumerate(zip(output, reference)) if math.isfinite(value) and math.isfinite(other)]
    stems = "".join(f"M{x:.1f} {_y(up, value):.1f}V{_y(up, other):.1f}"
                    for x, value, other in places)
    rings = "".join(f"M{x:.1f} {_y(up, other):.1f}h0" for x, _, other in places)
    values = "".join(f"M{x:.1f} {_y(up, value):.1f}h0" for x, value, _ in places)
    marks = (f'<path class="stem" d="{stems}"/><path class="ring" d="{rings}"/>'
             f'<path class="ring-hole" d="{rings}"/><path class="dot s0" d="{values}"/>')
    return _frame(marks, across, up, "Values of the output and of the reference")


def envelope(lows: Sequence[float], highs: Sequence[float], count: int) -> Markup:
    """The least and greatest difference in every section of a long output of `count` elements."""
    bound = max((abs(value) for value in (*lows, *highs) if math.isfinite(value)), default=0) or 1.0
    across = Axis(0, count)
    up = Axis(-1.06 * bound, 1.06 * bound, wanted=2)
    width = WIDTH / len(lows)
    path = "".join(f"M{(index + 0.5) * width:.1f} {_y(up, low):.1f}V{_y(up, high):.1f}"
                   for index, (low, high) in enumerate(zip(lows, highs))
                   if math.isfinite(low) and math.isfinite(high))
    return _frame(f'<path class="spread" d="{path}"/>', across, up,
                  "Difference of the output from its reference, along its elements")
