"""The error that a layer of the board has altogether, against the reference."""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Iterator, Optional

from quilmrun_tools.artifacts.layer_results import Probe, ProbedLayer
from quilmrun_tools.artifacts.values import Values
from quilmrun_tools.layers.evidence import Evidence, evidence
from quilmrun_tools.layers.measure import LayerError, Range, layout
from quilmrun_tools.layers.own import sample_of
from quilmrun_tools.layers.sides import ProbeRun

BEST = 60.0  # dB that a loss is counted from; to lose what is beyond harms nothing


@dataclass
class ComparedLayer:
    """A layer whose outputs both sides have."""
    layer: ProbedLayer
    shape: list[int]  # at batch size 1
    board: dict[int, Values]  # {inference: values}
    reference: dict[int, Values]
    ranges: tuple[Range, Range] = field(default_factory=lambda: (Range(), Range()))
    found: Optional[Evidence] = None

    @property
    def runs(self) -> list[int]:
        """The inferences that both sides have."""
        return sorted(self.board.keys() & self.reference.keys())

    def empty_error(self) -> LayerError:
        """Sums of nothing, for errors of this layer's values on the board."""
        return LayerError(layout(self.shape, self.layer.operator), *self.ranges)


def pair_up(probe: Probe, board: ProbeRun,
            reference: ProbeRun) -> tuple[list[ComparedLayer], dict[str, str]]:
    """The layers that can be compared, in order, and {layer: why it cannot be} of the others."""
    compared, problems = [], {}
    for layer in probe.layers:
        missing = _missing(layer, probe, board, reference)
        if missing:
            problems[layer.name] = missing
            continue
        one = ComparedLayer(layer, [], board.values[layer.output], reference.values[layer.output])
        one.shape, problem = _shape(one, reference)
        if problem:
            problems[layer.name] = problem
        else:
            compared.append(one)
    return compared, problems


def _missing(layer: ProbedLayer, probe: Probe, board: ProbeRun, reference: ProbeRun) -> str:
    if probe.quantised and layer.name in probe.quantised.unpaired and \
            layer.output not in board.values:
        return NOT_PAIRED
    for side in (board, reference):
        if layer.output not in side.values:
            return f"{layer.file} {NOT_RUN} in {side.folder}" if layer.file in side.without else \
                f"missing in {side.folder}"
    if not board.runs(layer.output) & reference.runs(layer.output):
        return "the two sides have no inference in common"
    return ""


NOT_PAIRED = "without a counterpart in the quantised model"
NOT_RUN = "was not run"


def _shape(one: ComparedLayer, reference: ProbeRun) -> tuple[list[int], str]:
    """The shape of a layer at batch size 1, by the probe's description or the log, and why the
    values do not have it."""
    count = one.reference[one.runs[0]].count
    sizes = {values.count for side in (one.board, one.reference) for run, values in side.items()
             if run in one.runs}
    if len(sizes) > 1 or count == 0:
        return [], f"the sides have {' and '.join(map(str, sorted(sizes)))} values"
    shape = one.layer.shape
    if shape is None or math.prod(shape) == 0 or count % math.prod(shape):
        known = reference.shapes.get(one.layer.output)
        shape = known if known and count % (math.prod(known) or 1) == 0 else [count]
    return shape, ""


def judge(compared: list[ComparedLayer]) -> Iterator[ComparedLayer]:
    """Fills in ranges and figures of one layer after the other."""
    for one in compared:
        for run in one.runs:
            for place, values in enumerate((one.board[run], one.reference[run])):
                one.ranges[place].add(sample_of(values, 0, 1))
        error = one.empty_error()
        for run in one.runs:
            error.add(sample_of(one.board[run], 0, 1), sample_of(one.reference[run], 0, 1))
        one.found = evidence(error)
        yield one


def drops(compared: list[ComparedLayer]) -> dict[str, float]:
    """{layer: dB that it loses from the worst of what it is computed from to its output}."""
    snr = {one.layer.name: min(one.found.snr_db, BEST) for one in compared if one.found}
    lost = {}
    for one in compared:
        before = [snr[name] for name in one.layer.sources if name in snr]
        lost[one.layer.name] = max(0.0, min(before, default=BEST) - snr[one.layer.name])
    return lost
