"""The worst cases of a comparison: their pictures, and where outputs and references differ."""

from __future__ import annotations

from dataclasses import dataclass, field, replace
from pathlib import Path

import numpy as np
from markupsafe import Markup

from quilmrun_tools.artifacts.comparison import OutputCase
from quilmrun_tools.artifacts.values import Reader, Values
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.report import charts
from quilmrun_tools.report.charts import Chart, Drawings
from quilmrun_tools.report.pictures import thumbnail
from quilmrun_tools.report.run import Run

FEW = 32  # outputs with so few values are drawn value by value
MOST_PICTURES = 4  # of one inference; a batch may have more
SECTIONS = 400  # of the drawing of a longer one
CHUNK = 1 << 15  # elements that are read at a time


@dataclass
class CasePicture:
    """A source of an inference; `image` is a data URI, empty where there is no picture."""

    name: str
    path: str
    image: str = ""
    remark: str = ""  # why nothing is shown


@dataclass
class WorstCase:
    """An inference's output that differs much from its reference."""

    index: int
    output: str
    passed: bool
    figures: OutputCase
    pictures: list[CasePicture] = field(default_factory=list)
    drawing: Markup = Markup("")
    few: bool = False  # whether the drawing shows single values
    remark: str = ""  # why there is no drawing


def worst_cases(run: Run, most: int, drawn: Drawings) -> list[WorstCase]:
    """The first of the comparison's runs, which come worst first; equal ones are left out."""
    cases = [case for case in run.comparison.runs if not case.passed or case.max_abs != 0] \
        if run.comparison else []
    return [_worst_case(run, case, drawn) for case in cases[:most]]


def _worst_case(run: Run, found: OutputCase, drawn: Drawings) -> WorstCase:
    name = found.output + (f" ({found.duplicate + 1}.)" if found.duplicate else "")
    case = WorstCase(found.index, name, found.passed, found)
    case.pictures = [_picture(run, source) for source in
                     (run.sources(case.index) or found.sources)[:MOST_PICTURES]]
    if found.problem or not found.file or not found.reference_file or not run.comparison:
        case.remark = found.problem
        return case
    try:
        output = _located(run, found.file, run.comparison.output)
        reference = _located(run, found.reference_file, run.comparison.reference)
        case.few = min(output.count, reference.count) <= FEW
        case.drawing = drawn.add(_chart(output, reference))
    except Unreadable as error:
        case.remark = f"no drawing: {error}"
    return case


def _picture(run: Run, path: str) -> CasePicture:
    shown = thumbnail(path, run.inputs_folder, run.checksum(path))
    return CasePicture(Path(path).name, path, shown.image, shown.remark)


def _located(run: Run, values: Values, side: str) -> Values:
    """Values of the comparison: as their file is named, or in the directory that was compared."""
    for folder in (Path(), Path(side), *([run.folder] if run.folder else [])):
        if (folder / values.path).is_file():
            return replace(values, path=folder / values.path)
    raise Unreadable(f"{values.path} is not on this machine")


def _chart(output: Values, reference: Values) -> Chart:
    count = min(output.count, reference.count)
    if count <= FEW:
        reader = Reader(FEW)
        return charts.pairs(reader.whole(output.section(0, count)).tolist(),
                            reader.whole(reference.section(0, count)).tolist())
    lows, highs = [], []
    edges = np.linspace(0, count, min(SECTIONS, count) + 1).astype(int).tolist()
    readers = Reader(CHUNK), Reader(CHUNK)
    with np.errstate(invalid="ignore", over="ignore"):
        for start, end in zip(edges, edges[1:]):
            parts = [reader.numbers(values.section(start, end - start))
                     for reader, values in zip(readers, (output, reference))]
            differences = [one - other for one, other in zip(*parts)]
            lows.append(min(float(difference.min()) for difference in differences))
            highs.append(max(float(difference.max()) for difference in differences))
    return charts.envelope(lows, highs, count)
