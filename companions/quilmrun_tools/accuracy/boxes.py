"""Detected boxes, from what a model gives: one output of rows, or an output for each part.

A row's columns are named, as in x1,y1,x2,y2,score,class. Boxes are carried back to the original
picture, where they are compared with annotations.
"""

from dataclasses import dataclass
from typing import Any, Optional

import numpy as np

from quilmrun_tools.common.errors import Unreadable

Array = np.ndarray[Any, Any]

FIELDS = ("x1", "y1", "x2", "y2", "cx", "cy", "w", "h", "score", "class", "image")
SKIPPED = "-"
WHOLE_ROWS, BOX_ROWS = "x1,y1,x2,y2,score,class", "x1,y1,x2,y2"  # usual formats
_NORMALISED = 1.5  # no box of a model that counts in pixels ends before
# How the two ends of a box are found along x: the columns, and their weights in low and high end.
_ENDS = ((("x1", "x2"), (1, 0), (0, 1)), (("x1", "w"), (1, 0), (1, 1)),
         (("cx", "w"), (1, -0.5), (1, 0.5)), (("x2", "w"), (1, -1), (1, 0)))
_ALONG_Y = {"x1": "y1", "x2": "y2", "cx": "cy", "w": "h"}


@dataclass(frozen=True)
class BoxFormat:
    """The columns of a row."""
    columns: tuple[str, ...]

    @staticmethod
    def parse(text: str) -> "BoxFormat":
        """Reads names with commas between; raises Unreadable when they make no box."""
        columns = tuple(part.strip() for part in text.split(","))
        named = [name for name in columns if name != SKIPPED]
        unknown = [name for name in named if name not in FIELDS]
        if unknown or len(set(named)) < len(named):
            raise Unreadable(f"--box-format {text}: name each column once, of "
                             f"{', '.join(FIELDS)}, or {SKIPPED} for one to skip")
        result = BoxFormat(columns)
        if not all(result.finds_ends(along_y) for along_y in (False, True)):
            raise Unreadable(f"--box-format {text} makes no boxes: give x1, x2 or x1, w or cx, w, "
                             "and the same for y")
        return result

    def finds_ends(self, along_y: bool) -> bool:
        """Whether the columns tell both ends of a box along an axis."""
        return self._ends(along_y) is not None

    def has(self, name: str) -> bool:
        """Whether there is such a column."""
        return name in self.columns

    def column(self, rows: Array, name: str) -> Array:
        """Its values."""
        return rows[:, self.columns.index(name)]

    def _ends(self, along_y: bool) -> Optional[tuple[tuple[str, str], Array]]:
        """The two columns that hold a box's extent, and the weights of both for its two ends."""
        for (first, second), *weights in _ENDS:
            names = (_ALONG_Y[first], _ALONG_Y[second]) if along_y else (first, second)
            if all(map(self.has, names)):
                return names, np.array(weights, np.float64)
        return None

    def corners(self, rows: Array) -> Array:
        """rows x 4: left, top, right, bottom in the model's coordinates."""
        parts = []
        for along_y in (False, True):
            found = self._ends(along_y)
            assert found  # parse() checks it
            names, weights = found
            parts.append(np.stack([self.column(rows, name) for name in names], 1) @ weights.T)
        return np.stack([parts[0][:, 0], parts[1][:, 0], parts[0][:, 1], parts[1][:, 1]], 1)


@dataclass(frozen=True)
class Rows:
    """Detections of one picture in the model's coordinates."""
    corners: Array  # n x 4: left, top, right, bottom
    scores: Array
    classes: Array  # as the model gives them

    def select(self, chosen: Array) -> "Rows":
        """Some of the detections."""
        return Rows(self.corners[chosen], self.scores[chosen], self.classes[chosen])


@dataclass(frozen=True)
class Parts:
    """The outputs of one inference that hold boxes, as flat arrays; None: in the rows."""
    boxes: Array
    scores: Optional[Array] = None
    classes: Optional[Array] = None
    count: Optional[Array] = None  # of valid rows, for each picture


def rows_of(parts: Parts, form: BoxFormat, pictures: int, least: float) -> list[Rows]:
    """The detections of every picture of an inference: those with a score above `least`."""
    width = len(form.columns)
    if parts.boxes.size % width:
        raise Unreadable(f"holds {parts.boxes.size} values, which are no rows of the {width} that "
                         "--box-format names")
    table = parts.boxes.astype(np.float64).reshape(-1, width)
    scores = _beside(parts.scores, form, table, "score", "--scores")
    classes = _beside(parts.classes, form, table, "class", "--classes-output")
    whole = Rows(form.corners(table), scores, classes)
    owner = _owners(parts, form, table, pictures)
    with np.errstate(invalid="ignore"):
        counted = scores > least
    return [whole.select((owner == at) & counted) for at in range(pictures)]


def _beside(values: Optional[Array], form: BoxFormat, table: Array, name: str,
            option: str) -> Array:
    """One value for each row, from an output of their own or from a column."""
    if values is not None:
        if values.size != len(table):
            raise Unreadable(f"holds {len(table)} boxes, but the output of {option} "
                             f"{values.size} values: give one for each box")
        return values.astype(np.float64).reshape(-1)
    if form.has(name):
        return form.column(table, name)
    return np.zeros(len(table))  # of the only class


def _owners(parts: Parts, form: BoxFormat, table: Array, pictures: int) -> Array:
    """The picture of every row; -1 for rows beyond the number of valid ones."""
    if form.has("image"):
        named = form.column(table, "image")
        return np.where(np.isfinite(named), named, -1).astype(np.int64)
    if len(table) % pictures:
        raise Unreadable(f"holds {len(table)} rows for {pictures} pictures: name the column that "
                         'tells the picture, "image", in --box-format')
    each = max(len(table) // pictures, 1)
    owner = np.arange(len(table)) // each
    if parts.count is None:
        return owner
    if parts.count.size != pictures:
        raise Unreadable(f"has {parts.count.size} values in the output of --count for {pictures} "
                         "pictures: it has to give one for each")
    valid = parts.count.astype(np.float64).reshape(-1)
    return np.where(np.arange(len(table)) % each < valid[owner], owner, -1)


def are_normalised(pictures: list[Rows]) -> bool:
    """Whether coordinates are shares of the input's sides, 0 to 1, and not pixels."""
    known = [rows.corners for rows in pictures if rows.corners.size]
    return bool(known) and max(float(np.nanmax(np.abs(corners), initial=0))
                               for corners in known) <= _NORMALISED


@dataclass(frozen=True)
class Placement:
    """Where a picture lies in the model's input: x_input = x * scale + offset, in pixels."""
    width: int  # of the input
    height: int
    scale: tuple[float, float] = (1.0, 1.0)
    offset: tuple[float, float] = (0.0, 0.0)


def carry_back(corners: Array, placement: Placement, normalised: bool) -> Array:
    """Boxes in pixels of the original picture: left, top, width, height. What is no number becomes
    an empty box, which finds nothing; so does a box whose ends are exchanged."""
    pixels = corners * np.tile((placement.width, placement.height), 2) if normalised else corners
    known = np.isfinite(pixels).all(axis=1, keepdims=True)
    original = (np.where(known, pixels, 0) - np.tile(placement.offset, 2)) / \
        np.tile(placement.scale, 2)
    size = np.where(known, np.maximum(original[:, 2:] - original[:, :2], 0), 0)
    return np.concatenate([original[:, :2], size], axis=1)


def category_ids(classes: Array, categories: list[int], are_ids: bool) -> Array:
    """The categories that class values stand for, and -1 for ids that the annotations lack. A
    value that is no whole number, or no index, raises Unreadable: the columns are others."""
    whole = np.rint(classes)
    with np.errstate(invalid="ignore"):
        wrong = ~(np.abs(classes - whole) < 1e-3)
    if not are_ids:
        wrong |= (whole < 0) | (whole >= len(categories))
    if wrong.any():
        raise Unreadable(
            f"gives the class {classes[wrong][0]:g}, but the annotations have {len(categories)} "
            "categories, counted from 0: give --category-ids if it is an id, or another "
            "--box-format")
    if are_ids:
        return np.where(np.isin(whole, categories), whole, -1).astype(np.int64)
    return np.array(categories, np.int64)[whole.astype(np.int64)]
