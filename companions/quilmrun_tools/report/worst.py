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
from quilmrun_tools.report.pictures import is_picture, thumbnail
from quilmrun_tools.report.run import Run

FEW = 32  # outputs with so few values are drawn value by value
MOST_PICTURES = 4  # of one inference; a batch may have more
SECTIONS = 400  # of the drawing of a longer one
CHUNK = 1 << 15  # elements that are read at a time


@dataclass
class Picture:
    """A source of an inference; `image` is a data URI, empty where there is no picture."""

    name: str
    path: str
    image: str = ""

    @property
    def remark(self) -> str:
        """Why nothing is shown."""
        if self.image:
            return ""
        return "the picture is not on this machine" if is_picture(self.path) else "not a picture"


@dataclass
class WorstCase:
    """An inference's output that differs much from its reference."""

    index: int
    output: str
    passed: bool
    figures: OutputCase
    pictures: list[Picture] = field(default_factory=list)
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
    near = run.found["inputs"].parent if "inputs" in run.found else run.folder
    sources = run.sources(case.index) or found.sources
    case.pictures = [Picture(Path(path).name, path,
                             thumbnail(path, near) if is_picture(path) else "")
                     for path in sources[:MOST_PICTURES]]
    if found.problem or not found.file or not found.reference_file:
        case.remark = found.problem
        return case
    try:
        output, reference = _located(run, found.file), _located(run, found.reference_file)
        case.few = min(output.count, reference.count) <= FEW
        case.drawing = drawn.add(_chart(output, reference))
    except Unreadable as error:
        case.remark = f"no drawing: {error}"
    return case


def _located(run: Run, values: Values) -> Values:
    """Values of the comparison: as their file is named, or in the directory that was compared."""
    comparison = run.comparison
    folders = [Path(), *(Path(path) for path in (comparison.output, comparison.reference)
                         if comparison), *([run.folder] if run.folder else [])]
    for folder in folders:
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
