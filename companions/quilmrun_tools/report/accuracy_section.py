"""The section about accuracy: right and wrong answers of the task, with the worst pictures."""

from __future__ import annotations

import base64
import io
from dataclasses import dataclass, field
from typing import Any

import numpy as np
from markupsafe import Markup, escape
from PIL import Image

from quilmrun_tools.artifacts.accuracy_results import (
    Classification, DetectedPicture, Detection, DrawnBox, Picture, Results)
from quilmrun_tools.report.pictures import Thumbnail, thumbnail
from quilmrun_tools.report.run import Run

LARGEST_TABLE = 16  # classes of a confusion matrix that is shown in numbers; more are a picture
MOST_CLASSES = 20  # of the table by class
MOST_PICTURES = 8
# Line styles tell boxes apart for those who do not tell their colours apart.
STROKES = {"right": "", "wrong": "7 4", "missed": "1.5 4"}


@dataclass(frozen=True)
class Shown:
    """One of the worst pictures."""

    picture: Picture
    thumbnail: Thumbnail
    says: str
    boxes: Markup = Markup("")


@dataclass
class AccuracyView:
    """What the page shows of a task's results."""

    results: Results
    pictures: list[Shown]
    matrix: str = ""  # the confusion matrix as a data URI, when it is too large for numbers
    shares: list[list[float]] = field(default_factory=list)  # of each row of a small one

    @property
    def is_detection(self) -> bool:
        return isinstance(self.results, Detection)

    @property
    def classes(self) -> list[object]:
        """The classes with the lowest recall or AP first."""
        if isinstance(self.results, Detection):
            return [*sorted(self.results.classes, key=lambda one: one.ap)[:MOST_CLASSES]]
        known = [one for one in self.results.classes if one.support]
        return [*sorted(known, key=lambda one: one.recall)[:MOST_CLASSES]]


def accuracy_view(run: Run) -> AccuracyView | None:
    """The section; None where no accuracy was judged."""
    results = run.accuracy
    if results is None:
        return None
    if isinstance(results, Detection):
        return AccuracyView(results, [_detected(run, found)
                                      for found in results.worst[:MOST_PICTURES]])
    shown = [_shown(run, wrong.picture,
                    f"{wrong.true}, taken for {wrong.given} with {wrong.confidence:.0%}")
             for wrong in results.worst[:MOST_PICTURES]]
    if len(results.classes) <= LARGEST_TABLE:
        return AccuracyView(results, shown, shares=_shares(results).tolist())
    return AccuracyView(results, shown, _matrix(results))


def _shares(results: Classification) -> np.ndarray[Any, np.dtype[np.float64]]:
    """Each count of the confusion matrix as a share of its row."""
    counts = np.array(results.confusion, float)
    return np.asarray(counts / np.maximum(counts.sum(axis=1, keepdims=True), 1))


def _matrix(results: Classification) -> str:
    """A confusion matrix as a picture, of one pixel a cell: the darker, the larger the share of the
    row. The square root lets single mistakes be seen."""
    shade = np.sqrt(_shares(results))[..., None]
    nothing, all_of_it = np.array([250, 250, 250]), np.array([0, 70, 120])
    pixels = (nothing + shade * (all_of_it - nothing)).astype(np.uint8)
    memory = io.BytesIO()
    Image.fromarray(pixels).save(memory, "PNG", optimize=True)
    return f"data:image/png;base64,{base64.b64encode(memory.getvalue()).decode()}"


def _shown(run: Run, picture: Picture, says: str, boxes: Markup = Markup("")) -> Shown:
    shown = thumbnail(picture.path, run.inputs_folder, run.checksum(picture.path))
    return Shown(picture, shown, says, boxes)


def _detected(run: Run, found: DetectedPicture) -> Shown:
    says = f"{found.right} right, {found.wrong} wrong, {found.missed} missed"
    return _shown(run, found.picture, says, _boxes(found))


def _boxes(found: DetectedPicture) -> Markup:
    """The boxes of a picture as a drawing that lies over it."""
    if not found.width or not found.height:
        return Markup("")
    drawn = Markup("").join(_box(box) for box in found.boxes)
    return Markup(f'<svg viewBox="0 0 {found.width} {found.height}" role="img" aria-label="boxes">'
                  f"{drawn}</svg>")


def _box(box: DrawnBox) -> Markup:
    left, top, width, height = box.box
    score = f" {box.score:.2f}" if box.score >= 0 else ""
    return Markup(f'<rect class="{escape(box.kind)}" x="{left:.1f}" y="{top:.1f}" '
                  f'width="{width:.1f}" height="{height:.1f}" '
                  f'stroke-dasharray="{STROKES[box.kind]}">'
                  f"<title>{escape(box.kind)}: {escape(box.name)}{score}</title></rect>")
