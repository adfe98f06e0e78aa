"""Drawings of the page: what is drawn, as data that the page's script hands to Chart.js.

Numbers are thinned out and counted here, so that a page of a long run stays small; axes, ticks,
labels and pointing are the library's. Without JavaScript each drawing is one line of text.
"""

from __future__ import annotations

import base64
import hashlib
import json
import math
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any, Iterator, Optional, Sequence

from markupsafe import Markup, escape

BINS = 48
MOST_MARKS = 1500  # more marks than this are thinned out; nobody can tell them apart
HERE = Path(__file__).resolve().parent
# Where scripts/fetch-charts puts the library in the source tree, and where packages have it.
LIBRARY_FOLDERS = (HERE.parents[2] / "build/charts", HERE.parents[1] / "charts")
LIBRARY_FILES = ("chart.umd.min.js", "chartjs-plugin-annotation.min.js",
                 "chartjs-plugin-zoom.min.js")

Point = Sequence[Optional[float]]


@dataclass(frozen=True)
class Axis:
    """What lies along an edge. The unit is that of the numbers; the page turns ms into
    what fits."""

    name: str
    unit: str = ""
    logarithmic: bool = False
    low: float | None = None
    high: float | None = None
    whole: bool = False  # whether it counts things, which have no halves


@dataclass(frozen=True)
class Series:
    """Marks of one kind. A point is (x, y), or (x, y, z) where `third` says what z is: the
    inference of a dot, or where a step ends."""

    label: str
    kind: str  # dots, rings, stems, line, steps or band; of a band, points are (x, low, high)
    colour: str  # a custom property of the style sheet, such as s0
    points: Sequence[Point]
    third: str = ""
    names: Sequence[str] = ()  # of the points, where each has one


@dataclass(frozen=True)
class Mark:
    """A dashed line across the drawing, and what it says; `axis` is the one that it stands on."""

    axis: str
    at: float
    label: str


@dataclass(frozen=True)
class Chart:
    """A drawing."""

    described: str  # for those who do not see it
    across: Axis
    up: Axis
    series: list[Series]
    marks: list[Mark] = field(default_factory=list)
    zoom: bool = False  # whether dragging shows a part of it


class Drawings:
    """The drawings of one page, and the scripts that it needs for them."""

    def __init__(self) -> None:
        self._charts: list[Chart] = []

    def add(self, chart: Chart) -> Markup:
        """The place of a drawing in the page. The script shows it; it is hidden without one."""
        self._charts.append(chart)
        return Markup(f'<div class="chart" data-chart="{len(self._charts) - 1}" hidden>'
                      f'<canvas role="img" aria-label="{escape(chart.described)}"></canvas></div>'
                      '<noscript><p class="none">The drawing needs JavaScript; the tables have its '
                      'figures.</p></noscript>')

    def data(self) -> Markup:
        """What is drawn, as JSON inside of a script element, which no text can end."""
        text = json.dumps([_plain(asdict(chart)) for chart in self._charts],
                          separators=(",", ":"), allow_nan=False)
        return Markup(text.replace("<", "\\u003c"))

    def scripts(self) -> list[Markup]:
        """The library and the page's own script; none where there is nothing to draw."""
        if not self._charts:
            return []
        return [Markup(text) for text in (*_library(), (HERE / "charts.js").read_text("utf-8"))]


def _library() -> Iterator[str]:
    for name in LIBRARY_FILES:
        path = next((folder / name for folder in LIBRARY_FOLDERS if (folder / name).is_file()),
                    None)
        if path is None:
            raise FileNotFoundError(2, "run scripts/fetch-charts, which fetches it", name)
        # A page that is saved beside no source map should not make a browser look for one.
        yield "\n".join(line for line in path.read_text("utf-8").splitlines()
                        if not line.startswith("//# sourceMappingURL="))


def policy(scripts: Sequence[str]) -> str:
    """The page's Content-Security-Policy: these scripts, pictures in the page, and nothing else."""
    allowed = " ".join(
        f"'sha256-{base64.b64encode(hashlib.sha256(script.encode()).digest()).decode()}'"
        for script in scripts)
    return (f"default-src 'none'; img-src data:; style-src 'unsafe-inline'; "
            f"script-src {allowed or chr(39) + 'none' + chr(39)}; base-uri 'none'; "
            "form-action 'none'")


def _plain(value: Any) -> Any:
    """The same without numbers that JSON does not know, and with as many digits as can be seen."""
    if isinstance(value, float):
        return float(f"{value:.6g}") if math.isfinite(value) else None
    if isinstance(value, dict):
        return {key: _plain(item) for key, item in value.items() if item not in (None, "", [])}
    if isinstance(value, (list, tuple)):
        return [_plain(item) for item in value]
    return value


def spreads(values: Sequence[float]) -> bool:
    """Whether values differ so much that only a logarithmic axis shows the small ones."""
    ranked = sorted(values)
    return bool(ranked) and ranked[0] > 0 and ranked[-1] > 8 * ranked[len(ranked) // 2]


def histogram(series: Sequence[tuple[str, str, Sequence[float]]], across: Axis,
              marks: list[Mark]) -> Chart:
    """How often values occur, for series of (label, colour, values) over each other."""
    values = [value for _, _, each in series for value in each]
    low, high = min(values), max(values)
    if high <= low:
        low, high = 0.9 * low, 1.1 * high or 1.0
    logarithmic = spreads(values)
    edges = [_between(low, high, place / BINS, logarithmic) for place in range(BINS + 1)]
    binned = [Series(label, "steps", colour, _bins(each, edges, logarithmic), "until")
              for label, colour, each in series if each]
    return Chart(f"Histogram of {across.name}",
                 Axis(across.name, across.unit, logarithmic, low, high), Axis("count", low=0.0),
                 binned, marks)


def _between(low: float, high: float, share: float, logarithmic: bool) -> float:
    if logarithmic:
        return low * math.exp(share * math.log(high / low))
    return low + share * (high - low)


def _bins(values: Sequence[float], edges: Sequence[float], logarithmic: bool) -> list[Point]:
    """(start, count, end) of every bin, and the end of the last one without a count. The greatest
    value belongs to the last bin."""
    occurrences = [0] * BINS
    low, high = edges[0], edges[-1]
    for value in values:
        share = math.log(value / low) / math.log(high / low) if logarithmic else \
            (value - low) / (high - low)
        occurrences[min(BINS - 1, max(0, int(share * BINS)))] += 1
    return [*((edges[at], count, edges[at + 1]) for at, count in enumerate(occurrences)), (high, 0)]


def thinned(points: Sequence[Point], most: int = MOST_MARKS) -> list[Point]:
    """At most about so many of the points, in which the least and the greatest values stay."""
    if len(points) <= most:
        return list(points)
    size = math.ceil(2 * len(points) / most)
    kept: list[Point] = []
    for start in range(0, len(points), size):
        chunk = range(start, min(start + size, len(points)))

        def height(at: int) -> float:
            return points[at][1] or 0.0
        kept += [points[at] for at in sorted({min(chunk, key=height), max(chunk, key=height),
                                              chunk[-1]})]
    return kept


def course(series: list[Series], across: Axis, up: Axis, described: str,
           marks: Sequence[Mark] = ()) -> Chart:
    """Values in the course of a run or over its inferences, of which dragging shows a part."""
    heights = [height or 0.0 for each in series for point in each.points
               for height in (point[1:] if each.kind == "band" else point[1:2])]
    shown = [Series(each.label, each.kind, each.colour, thinned(each.points), each.third)
             for each in series if each.points]
    logarithmic = not marks and shown[-1].kind == "dots" and spreads(heights)
    return Chart(described, across, Axis(up.name, up.unit, logarithmic,
                                         None if logarithmic else 0.0), shown, list(marks), True)


def pairs(output: Sequence[float], reference: Sequence[float]) -> Chart:
    """Few values of an output beside those of its reference: a ring for the reference, a dot for
    the output, a line between them for the difference."""
    places = [(float(at), value, other) for at, (value, other) in enumerate(zip(output, reference))]
    stems: list[Point] = [point for at, value, other in places
                          for point in ((at, value), (at, other), (at, None))]
    return Chart("Values of the output and of the reference",
                 Axis("element", low=-0.5, high=len(output) - 0.5, whole=True), Axis("value"),
                 [Series("", "stems", "soft", stems),
                  Series("reference", "rings", "soft", [(at, other) for at, _, other in places]),
                  Series("output", "dots", "s0", [(at, value) for at, value, _ in places])])


def named_line(label: str, colour: str, names: Sequence[str],
               heights: Sequence[float | None]) -> Series:
    """Values of things that follow each other, such as layers; points without a value are left
    out, and the line passes over them."""
    kept = [(at, name, height) for at, (name, height) in enumerate(zip(names, heights))
            if height is not None and math.isfinite(height)]
    return Series(label, "line", colour, [(float(at), height) for at, _, height in kept],
                  names=[name for _, name, _ in kept])


def counts(series: Sequence[tuple[str, str, Sequence[int]]], low: float, high: float) -> Chart:
    """Histograms that were counted elsewhere, in bins of equal width."""
    shown = []
    for label, colour, bins in series:
        edges = [_between(low, high, place / len(bins), False) for place in range(len(bins) + 1)]
        points: list[Point] = [(edges[at], count, edges[at + 1]) for at, count in enumerate(bins)]
        shown.append(Series(label, "steps", colour, [*points, (high, 0)], "until"))
    return Chart("Histogram of values", Axis("value", low=low, high=high), Axis("count", low=0.0),
                 shown)


def envelope(lows: Sequence[float], highs: Sequence[float], count: int) -> Chart:
    """The least and greatest difference in every section of a long output of `count` elements."""
    width = count / len(lows)
    points = [((at + 0.5) * width, low, high) for at, (low, high) in enumerate(zip(lows, highs))]
    return Chart("Difference of the output from its reference, along its elements",
                 Axis("element", low=0.0, high=float(count), whole=True), Axis("difference"),
                 [Series("difference", "band", "s0", points)])
