"""The worst cases of a comparison: their pictures, and where outputs and references differ."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
from markupsafe import Markup

from quilmrun_tools.report import charts
from quilmrun_tools.report.charts import Chart, Drawings
from quilmrun_tools.report.pictures import is_picture, thumbnail
from quilmrun_tools.report.run import Run

FEW = 32  # outputs with so few values are drawn value by value
MOST_PICTURES = 4  # of one inference; a batch may have more
SECTIONS = 400  # of the drawing of a longer one


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
    passed: bool | None
    figures: dict[str, Any]
    pictures: list[Picture] = field(default_factory=list)
    drawing: Markup = Markup("")
    few: bool = False  # whether the drawing shows single values
    remark: str = ""  # why there is no drawing


def worst_cases(run: Run, most: int, drawn: Drawings) -> list[WorstCase]:
    """The first of the comparison's runs, which come worst first; equal ones are left out."""
    comparison = run.comparison or {}
    cases = [item for item in comparison.get("runs", [])
             if item.get("pass") is False or item.get("max_abs") != 0 or item.get("problem")]
    types = {(item.get("name"), item.get("duplicate", 0)): item.get("type")
             for item in comparison.get("outputs", [])}
    return [_worst_case(run, item, types.get((item.get("output"), item.get("duplicate", 0))), drawn)
            for item in cases[:most]]


def _worst_case(run: Run, item: dict[str, Any], element_type: str | None,
                drawn: Drawings) -> WorstCase:
    duplicate = item.get("duplicate") or 0
    name = str(item.get("output", "")) + (f" ({duplicate + 1}.)" if duplicate else "")
    case = WorstCase(int(item.get("index") or 0), name, item.get("pass"), item)
    near = run.found["inputs"].parent if "inputs" in run.found else run.folder
    sources = run.sources(case.index) or [str(path) for path in item.get("sources") or []]
    case.pictures = [Picture(Path(path).name, path,
                             thumbnail(path, near) if is_picture(path) else "")
                     for path in sources[:MOST_PICTURES]]
    if item.get("problem"):
        case.remark = str(item["problem"])
        return case
    try:
        output = _elements(_located(run, "output", item.get("file")), element_type)
        reference = _elements(_located(run, "reference", item.get("reference_file")), element_type)
        case.few = min(output.array.size, reference.array.size) <= FEW
        case.drawing = drawn.add(_chart(output, reference))
    except (OSError, ValueError) as error:
        case.remark = f"no drawing: {getattr(error, 'strerror', None) or error}"
    return case


def _located(run: Run, side: str, name: Any) -> Path:
    """A file of the comparison: as it is named, or in the directory that was compared."""
    if not name:
        raise ValueError("the comparison names no file")
    folder = Path(str((run.comparison or {}).get(side, "")))
    for candidate in (Path(name), folder / name, *([run.folder / name] if run.folder else [])):
        if candidate.is_file():
            return candidate
    raise ValueError(f"{name} is not on this machine")


@dataclass(frozen=True)
class Elements:
    """The elements of an output file, mapped and not read."""

    array: np.ndarray
    half_bits: bool = False  # whether each element is the number that a half float's bits spell

    def section(self, start: int, end: int) -> np.ndarray:
        """Some elements as 64-bit floats."""
        part = self.array[start:end]
        return (part.astype("<u2").view("<f2") if self.half_bits else part).astype("f8")


def _elements(path: Path, element_type: str | None) -> Elements:
    """In a .bin file half floats and 32-bit integers stand as what their bits spell."""
    if path.suffix == ".npy":
        return Elements(np.load(path, mmap_mode="r", allow_pickle=False).reshape(-1))
    if path.stat().st_size < 4:
        raise ValueError(f"{path.name} is empty")
    floats = np.memmap(path, "<f4", mode="r", shape=(path.stat().st_size // 4,))
    return Elements(floats.view("<i4") if element_type == "int32" else floats,
                    element_type == "half")


def _chart(output: Elements, reference: Elements) -> Chart:
    count = min(output.array.size, reference.array.size)
    if count <= FEW:
        return charts.pairs(output.section(0, count).tolist(),
                            reference.section(0, count).tolist())
    lows, highs = [], []
    edges = np.linspace(0, count, min(SECTIONS, count) + 1).astype(int)
    with np.errstate(invalid="ignore", over="ignore"):
        for start, end in zip(edges, edges[1:]):
            difference = output.section(start, end) - reference.section(start, end)
            lows.append(float(difference.min()))
            highs.append(float(difference.max()))
    return charts.envelope(lows, highs, count)
