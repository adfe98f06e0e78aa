"""The result as a text."""

from __future__ import annotations

import math
from typing import Iterator, Optional

from quilmrun_tools.artifacts.layer_results import LayerResult, LayersResult
from quilmrun_tools.common.units import significant
from quilmrun_tools.layers import verdict

_HEADINGS = ("layer", "operator", "cosine", "SNR dB", "max diff", "saturated")
_SATURATED = 0.01  # share from which on it is shown


def lines(result: LayersResult) -> Iterator[str]:
    """Everything that is printed."""
    if result.plain and not result.plain.agree:
        yield (f"THE PROBE CHANGES THE RESULT: the model's own outputs have an SNR of "
               f"{_db(result.plain.snr_db)} dB without it and {_db(result.plain.probe_snr_db)} dB "
               "with it. Compilers fuse less where results become outputs: probe fewer layers, "
               "with --only or --at-most")
        yield ""
    yield from _table(result)
    yield ""
    for note in result.notes:
        yield f"note: {note}"
    if result.plain and result.plain.agree:
        yield (f"with the probe the model's own outputs are as they are without it: "
               f"{_db(result.plain.probe_snr_db)} and {_db(result.plain.snr_db)} dB")
    if result.run_next:
        yield f"run {result.run_next} next: it narrows the place down"
    yield from _verdict(result)


def _table(result: LayersResult) -> Iterator[str]:
    headings = [*_HEADINGS, *(["own cosine", "own SNR dB"] if result.own else []), ""]
    rows = [[*_cells(layer, result.own), _marks(layer, result)] for layer in result.layers
            if layer.snr_db is not None]
    widths = [max(len(row[at]) for row in [headings, *rows]) for at in range(len(headings))]
    for row in [headings, *rows]:
        cells = [text.ljust(width) if at < 2 or at == len(row) - 1 else text.rjust(width)
                 for at, (text, width) in enumerate(zip(row, widths))]
        yield "  ".join(cells).rstrip()


def _cells(layer: LayerResult, own: bool) -> list[str]:
    saturated = layer.saturated or 0.0
    cells = [layer.name, layer.operator, _cosine(layer.cosine), _db(layer.snr_db),
             significant(layer.relative_difference or 0.0),
             f"{100 * saturated:.0f} %" if saturated > _SATURATED else ""]
    return cells + ([_cosine(layer.own_cosine), _db(layer.own_snr_db)] if own else [])


def _marks(layer: LayerResult, result: LayersResult) -> str:
    marks = []
    if layer.name == result.first:
        marks.append("<- first beyond the limits")
    if layer.name == result.worst_own:
        marks.append("<- worst by itself")
    if layer.name == result.largest_drop:
        marks.append(f"<- largest drop, {significant(layer.drop_db or 0.0)} dB")
    return " ".join(marks)


def _verdict(result: LayersResult) -> Iterator[str]:
    layers = {layer.name: layer for layer in result.layers}
    judged = sum(1 for layer in result.layers if layer.snr_db is not None)
    what = f"{verdict.text_of(result.limits)}; {result.own_runs or result.runs} inferences"
    if result.verdict == "pass":
        yield f"PASS: none of {judged} layers is beyond the limits ({what})"
        if result.own and result.first:
            yield (f"from {result.first} on the error is beyond the limits all the same: it adds "
                   "up from many layers, of which none stands out")
        return
    yield f"FAIL: {', '.join(result.named)} beyond the limits ({what})"
    for name in result.named:
        yield f"  {_said(layers[name], result.own)}"


def _said(layer: LayerResult, own: bool) -> str:
    figures = f"own SNR {_db(layer.own_snr_db)} dB" if own else f"SNR {_db(layer.snr_db)} dB"
    return f"{layer.name} ({layer.operator}): {figures}, {layer.kind}: {layer.explanation}"


def _db(value: Optional[float]) -> str:
    if value is None:
        return "?"
    return significant(value) if math.isinf(value) else f"{value:.1f}"


def _cosine(value: Optional[float]) -> str:
    return "?" if value is None else f"{value:.5f}"
