"""The two JSON files of quilmrun-layers: PROBE/layers.json, which says what the outputs of a probe
are, and the result of a search for the layer that goes wrong.

The result usually lies in the folder that is judged, as BOARD/layers.json (--json names it);
quilmrun-report looks for it there. Layers stand in the order of the graph in both files.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Literal, Optional

from quilmrun_tools.common.decoding import json_name
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.json_files import Format, headed, read_json

FILE_NAME = "layers.json"  # of the description in the probe's folder, and of the result in BOARD
PROBE_FORM = Format("quilmrun-layers probe", 1, "make the probe again with quilmrun-layers probe")
RESULT_FORM = Format("quilmrun-layers", 1, "search again with quilmrun-layers find")

Kind = Literal["offset", "scale", "saturation", "noise", "one channel", "no numbers"]


# ---- The probe ----------------------------------------------------------------------------------

@dataclass(frozen=True)
class ModelFile:
    """A model that a probe was made of."""
    path: str  # absolute
    sha256: str  # of the model file alone, without weights in other files


@dataclass(frozen=True)
class ProbedLayer:
    """A result inside the float model that a probe has as an output."""
    name: str  # the tensor
    output: str  # the output's name in the probe: the tensor's, unless files would then collide
    node: str  # the name of the node that computes the layer; "" when it has none
    operator: str  # of that node, as "Conv"
    activation: str  # the operator after which the output is taken; "" when it is the layer's own
    place: int  # of the node that makes the tensor, among the nodes of the graph, from 0
    sources: list[str]  # the probed tensors, and inputs of the model, that it is computed from
    type: str  # of its elements, as users write it: float, half, int8, ...
    shape: Optional[list[int]]  # of one inference of batch size 1; None when it is not known
    file: str  # the probe that has the output, as "probe.onnx"


@dataclass(frozen=True)
class QuantisedPair:
    """A layer and the tensor of the quantised model that stands for it."""
    name: str  # the float model's tensor
    tensor: str  # the quantised model's
    found_by: Literal["name", "suffix", "order"]  # what pairs the two


@dataclass(frozen=True)
class QuantisedProbe:
    """The probe of a quantised model, with outputs named as those of the float model's probe."""
    model: ModelFile
    files: list[str]
    pairs: list[QuantisedPair]
    unpaired: list[str]  # layers that have no counterpart, and are no outputs there


@dataclass(frozen=True)
class Probe:
    """All of the probe's layers.json."""
    model: ModelFile
    inputs: list[str]  # of the model
    files: dict[str, list[str]]  # {probe: its outputs in their order, the model's own first}
    own_outputs: list[str]  # the outputs that the model has without the probe
    renamed: dict[str, str]  # {tensor: its output}, where the two differ
    layers: list[ProbedLayer]
    quantised: Optional[QuantisedProbe] = None
    notes: list[str] = field(default_factory=list)  # what was passed over, and why

    def to_dict(self) -> dict[str, object]:
        """As written to the file."""
        return headed(PROBE_FORM, self)


def read_probe(folder: Path) -> Probe:
    """Reads the layers.json of a probe's folder."""
    return read_json(folder / FILE_NAME, PROBE_FORM, Probe)


# ---- The result ---------------------------------------------------------------------------------

@dataclass(frozen=True)
class Histogram:
    """How many values of both sides lie in bins of equal width from `low` to `high`; values beyond
    the ends count in the first and the last bin."""
    low: float
    high: float
    board: list[int]
    reference: list[int]


@dataclass
class LayerResult:
    """One layer. The inherited error is that of BOARD against PC; the own error is that of BOARD
    against what the layer makes of BOARD's own values. SNR is in dB and may be infinite."""
    name: str  # the float model's tensor
    operator: str
    output: str  # its name among the outputs of the probe
    node: str
    place: int  # in the graph; what the depth is drawn by
    sources: list[str]
    cosine: Optional[float] = None  # inherited; None when one of the sides lacks the output
    snr_db: Optional[float] = None
    relative_difference: Optional[float] = None  # largest |BOARD - PC| / (greatest - least of PC)
    saturated: Optional[float] = None  # share of BOARD's values at their least or greatest
    drop_db: Optional[float] = None  # SNR of the worst source - SNR of this layer
    own_cosine: Optional[float] = None  # None without --own, or when it could not be computed
    own_snr_db: Optional[float] = None
    kind: Optional[Kind] = None  # of the own error (without --own, the inherited one)
    explanation: str = ""  # the kind in words, as "times 0.5 in channel 7, ..."
    passed: bool = json_name("pass", default=True)
    problem: str = ""  # why the layer could not be judged
    histogram: Optional[Histogram] = None  # of the worst three


@dataclass(frozen=True)
class LayerLimits:
    """What a layer's SNR and cosine have to be at least."""
    snr_db: Optional[float]
    cosine: Optional[float]
    outliers: bool  # whether a layer also fails whose own error stands out from all others'


@dataclass(frozen=True)
class PlainOutputs:
    """The model's own outputs, with the probe and without it, against the reference."""
    folder: str
    snr_db: float  # without the probe, of the worst output
    probe_snr_db: float
    agree: bool  # whether the probe still shows the fault


@dataclass
class LayersResult:
    """All of a search's result."""
    verdict: Literal["pass", "fail"]
    first: Optional[str]  # the first layer beyond the limits, by the inherited error
    worst_own: Optional[str]  # the layer whose own error is worst, when that is beyond the limits
    named: list[str]  # the layers that the verdict names, worst first, at most three
    largest_drop: Optional[str]  # the layer that loses most from its inputs to its output
    own: bool  # whether own errors were computed, and decided
    limits: LayerLimits
    runs: int  # inferences that were compared
    own_runs: int
    probe: str  # the three folders
    board: str
    reference: str
    layers: list[LayerResult]
    plain: Optional[PlainOutputs] = None
    run_next: Optional[str] = None  # the probe to run next, when not all were run
    notes: list[str] = field(default_factory=list)

    def to_dict(self) -> dict[str, object]:
        """As written to the file."""
        return headed(RESULT_FORM, self)


def read_result(path: Path) -> LayersResult:
    """Reads the result of a search, or the one in the folder `path`."""
    path = path / FILE_NAME if path.is_dir() else path
    result = read_json(path, RESULT_FORM, LayersResult)
    known = {layer.name for layer in result.layers}
    if (result.verdict == "fail") != bool(result.named) or not known.issuperset(result.named):
        raise Unreadable(f"{path} contradicts itself: {RESULT_FORM.remedy}")
    return result
