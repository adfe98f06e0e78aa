"""comparison.json, in which quilmrun-compare says how far outputs are from their reference."""

import math
from dataclasses import dataclass, field
from typing import Literal, Optional

from quilmrun_tools.artifacts.values import Values
from quilmrun_tools.common.decoding import json_name
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath
from quilmrun_tools.common.json_files import Format, headed, read_json

FORMAT = "quilmrun-compare"
FILE_NAME = "comparison.json"
FORM = Format(FORMAT, 2, "write it again with quilmrun-compare --json", oldest=2)


@dataclass(frozen=True)
class Limits:
    """What decides; None decides nothing."""
    atol: Optional[float] = None  # |difference| may be atol + rtol * |reference|
    rtol: Optional[float] = None
    cosine: Optional[float] = None  # least of every output of every inference
    top1: Optional[float] = None  # least share of all inferences

    def __str__(self) -> str:
        said = []
        if self.atol is not None:
            said.append(f"|difference| <= {self.atol:g} + {self.rtol or 0:g} * |reference|")
        if self.cosine is not None:
            said.append(f"cosine >= {self.cosine:g}")
        if self.top1 is not None:
            said.append(f"top-1 agreement >= {self.top1:.4g}")
        return ", ".join(said)


@dataclass(frozen=True, kw_only=True)
class Measures:
    """How far values are from their reference; differences are output - reference."""
    elements: int
    max_abs: float
    mean_abs: float
    max_rel: float  # |difference| / |reference|, where the reference is not 0
    cosine: float
    snr_db: float
    differing: float  # share of the elements
    top1: Optional[float]  # share of score vectors; None without scores
    top5: Optional[float]
    nan: tuple[int, int]  # in the output, in the reference
    inf: tuple[int, int]


@dataclass(frozen=True, kw_only=True)
class OutputSummary(Measures):
    """An output over all inferences."""
    name: str
    duplicate: int  # earlier outputs of the same name
    type: str  # as users write it
    runs: int  # inferences compared
    failed: int  # of these, beyond the limits
    passed: bool = json_name("pass")


@dataclass(frozen=True, kw_only=True)
class OutputCase(Measures):
    """An output of one inference."""
    index: int  # of the inference
    output: str
    duplicate: int
    file: Optional[Values]  # None: missing
    reference_file: Optional[Values]
    problem: str = ""  # why the values could not be compared
    sources: list[str] = field(default_factory=list)  # pictures and arrays, as paths
    passed: bool = json_name("pass")


@dataclass(frozen=True)
class LeftOut:
    """Output files of other runs of the tool."""
    count: int = 0
    names: list[str] = field(default_factory=list)  # the first of them


@dataclass(frozen=True)
class LeftOutOfBoth:
    """What was left out on either side."""
    output: LeftOut = field(default_factory=LeftOut)
    reference: LeftOut = field(default_factory=LeftOut)


@dataclass(frozen=True, kw_only=True)
class Comparison:
    """All of comparison.json."""
    output: str  # what was compared, as the user named it
    reference: str
    verdict: Literal["pass", "fail"]
    reasons: list[str]  # why it fails, as said in the verdict; none for a pass
    limits: Limits
    notes: list[str] = field(default_factory=list)
    left_out: LeftOutOfBoth = field(default_factory=LeftOutOfBoth)
    outputs: list[OutputSummary]
    inferences: int  # in which anything was compared
    compared: int  # outputs of inferences
    failed: int  # of these, beyond the limits
    not_compared: int  # missing, or of another size
    # Worst first: failures up to 1,000 and the worst of the others, or all of them.
    runs: list[OutputCase]
    # The largest absolute difference of any output by the number of the inference; of long runs,
    # the largest of several neighbours.
    differences: list[tuple[int, float]] = field(default_factory=list)

    def to_dict(self) -> dict[str, object]:
        """As written to the file."""
        return headed(FORM, self)


def read_comparison(path: AnyPath) -> Comparison:
    """Reads a comparison.json; raises Unreadable for one that is damaged or contradicts itself."""
    comparison = read_json(path, FORM, Comparison)
    contradiction = _contradiction(comparison)
    if contradiction:
        raise Unreadable(f"{path} contradicts itself: {contradiction}; {FORM.remedy}")
    return comparison


def _contradiction(comparison: Comparison) -> str:
    """Why a verdict cannot be that of the figures; empty when it can."""
    if (comparison.verdict == "pass") != (not comparison.reasons):
        return f'its verdict is "{comparison.verdict}", with {len(comparison.reasons)} reasons'
    for one in comparison.outputs:
        if one.passed and (one.failed or not _may_pass(one, comparison.limits)):
            return f"output {one.name} passes with figures beyond the limits"
    for case in comparison.runs:
        if case.passed and (case.problem or case.max_abs == math.inf):
            return f"inference {case.index} passes with an infinite difference, or uncompared"
    failed = sum(one.failed for one in comparison.outputs)
    if failed != comparison.failed or comparison.compared != sum(
            one.runs for one in comparison.outputs):
        return "its sums are not those of its outputs"
    bad = [case for case in comparison.runs if not case.passed]
    listed = sum(1 for case in bad if case.problem), sum(1 for case in bad if not case.problem)
    if listed[0] > comparison.not_compared or listed[1] > comparison.failed:
        return "more inferences fail than it counts"
    if comparison.verdict == "pass" and (
            comparison.failed or comparison.not_compared or not comparison.compared
            or not all(one.passed for one in comparison.outputs)):
        return 'its verdict is "pass", with outputs that fail'
    return ""


def _may_pass(one: OutputSummary, limits: Limits) -> bool:
    return one.max_abs < math.inf and not (
        limits.top1 is not None and one.top1 is not None and one.top1 < limits.top1)
