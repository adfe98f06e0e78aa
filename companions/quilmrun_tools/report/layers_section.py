"""The section about layers: where along the graph the values go wrong."""

from __future__ import annotations

from dataclasses import dataclass

from markupsafe import Markup

from quilmrun_tools.artifacts.layer_results import Histogram, LayerResult, LayersResult
from quilmrun_tools.report import charts
from quilmrun_tools.report.charts import Axis, Chart, Drawings, Mark

MOST_ROWS = 12  # of the table; the drawing has all layers


@dataclass(frozen=True)
class LayersView:
    """What the page shows of a search."""

    result: LayersResult
    depth: Markup  # SNR along the graph
    rows: list[LayerResult]  # in the order of the graph
    histograms: list[tuple[LayerResult, Markup]]

    @property
    def left_out(self) -> int:
        return len(self.result.layers) - len(self.rows)


def layers_view(result: LayersResult | None, drawn: Drawings) -> LayersView | None:
    """The section; None where no search was made."""
    if result is None or not result.layers:
        return None
    return LayersView(result, drawn.add(_depth(result)), _rows(result),
                      [(layer, drawn.add(_histogram(layer.histogram)))
                       for layer in result.layers if layer.histogram])


def _depth(result: LayersResult) -> Chart:
    names = [layer.name for layer in result.layers]
    series = [charts.named_line("inherited", "s0", names,
                                [layer.snr_db for layer in result.layers])]
    if result.own:
        series.append(charts.named_line("own", "s1", names,
                                        [layer.own_snr_db for layer in result.layers]))
    marks = [Mark("x", float(names.index(name)), f"{word}: {name}")
             for word, name in (("first", result.first), ("worst", result.worst_own))
             if name in names]
    if result.limits.snr_db is not None:
        marks.append(Mark("y", result.limits.snr_db, "limit"))
    return Chart("Signal-to-noise ratio of every layer, along the graph",
                 Axis("layer", low=0.0, high=float(max(len(names) - 1, 1)),
                      whole=True), Axis("SNR", "dB"),
                 [one for one in series if one.points], marks, zoom=True)


def _rows(result: LayersResult) -> list[LayerResult]:
    """The layers that fail or are named, and the worst of the others, in the order of the graph."""
    def severity(layer: LayerResult) -> tuple[bool, bool, float]:
        ratios = [ratio for ratio in (layer.own_snr_db if result.own else None, layer.snr_db)
                  if ratio is not None]
        return layer.name not in result.named, layer.passed, min(ratios, default=0.0)
    kept = {id(layer) for layer in sorted(result.layers, key=severity)[:MOST_ROWS]}
    return [layer for layer in result.layers if id(layer) in kept]


def _histogram(found: Histogram) -> Chart:
    return charts.counts([("board", "s0", found.board), ("reference", "s1", found.reference)],
                         found.low, found.high)
