"""accuracy.json, in which quilmrun-accuracy says how well a run answers its task.

The file holds more than its table shows: the whole confusion matrix, and the worst pictures with
what a report needs to draw them.
"""

from dataclasses import dataclass, field
from typing import Any, Optional, TextIO, Union

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, read_regular
from quilmrun_tools.common.json_files import (Format, check_version, decoded, headed, parse_json,
                                              write_json)

FORMAT = "quilmrun-accuracy"
FORM = Format(FORMAT, 1, "judge the run again with quilmrun-accuracy")
UNDEFINED = -1.0  # stands for a measure that nothing defines, such as the recall of no pictures


@dataclass(frozen=True)
class Picture:
    """Where a picture is; `path` is empty when no file tells it."""
    run: int  # the number of the inference
    place: int  # within the inference, from 0
    path: str = ""


@dataclass(frozen=True)
class ClassAccuracy:
    """How well one class is told from the others."""
    name: str
    support: int  # pictures of this class
    precision: float
    recall: float
    f1: float


@dataclass(frozen=True)
class WrongPicture:
    """A picture whose class was not found."""
    picture: Picture
    true: str
    given: str
    confidence: float  # in the given class, 0 to 1


@dataclass(frozen=True)
class Against:
    """The same pictures in another run, which counts as the earlier one."""
    path: str
    top1: float
    top5: float
    became_right: int
    became_wrong: int
    p: float  # McNemar's exact p, two-sided
    lost: list[tuple[str, int]]  # classes that lost most: how many more pictures are wrong


@dataclass(frozen=True)
class Macro:
    """Means over all classes that have pictures."""
    precision: float
    recall: float
    f1: float


@dataclass
class Classification:
    """Right and wrong classes."""
    path: str  # the output folder
    count: int  # pictures
    top1: float
    top5: float
    top1_interval: tuple[float, float]  # Wilson, 95 %
    top5_interval: tuple[float, float]
    macro: Macro
    classes: list[ClassAccuracy]
    confusion: list[list[int]]  # rows are the truth, columns what was given
    worst: list[WrongPicture] = field(default_factory=list)  # the greatest confidence first
    against: Optional[Against] = None
    limit: Optional[float] = None  # least top-1 that passes
    notes: list[str] = field(default_factory=list)

    @property
    def verdict(self) -> Optional[str]:
        """None without a limit."""
        return _verdict(self.top1, self.limit)


@dataclass(frozen=True)
class ClassDetection:
    """AP of one class."""
    name: str
    ap: float
    count: int  # annotated objects, without crowds


@dataclass(frozen=True)
class DrawnBox:
    """A box in pixels of the original picture: left, top, width, height."""
    kind: str  # "right", "wrong" or "missed", at an IoU of 0.5
    name: str
    box: tuple[float, float, float, float]
    score: float  # UNDEFINED for what was missed


@dataclass(frozen=True)
class DetectedPicture:
    """A picture with its boxes: right and missed objects, and detections that are wrong."""
    picture: Picture
    width: int  # of the original picture; 0 when not known
    height: int
    right: int
    wrong: int
    missed: int
    boxes: list[DrawnBox]


@dataclass
class Detection:
    """Average precision and recall, as COCO's evaluator defines them."""
    path: str
    count: int  # pictures
    objects: int  # annotated, without crowds
    detections: int
    ap: float
    ap50: float
    ap75: float
    ap_small: float
    ap_medium: float
    ap_large: float
    ar1: float
    ar10: float
    ar100: float
    classes: list[ClassDetection]
    threshold: float = 0.0  # score above which boxes are drawn: the best F1 at an IoU of 0.5
    worst: list[DetectedPicture] = field(default_factory=list)  # most errors first
    limit: Optional[float] = None  # least AP that passes
    notes: list[str] = field(default_factory=list)

    @property
    def verdict(self) -> Optional[str]:
        """None without a limit."""
        return _verdict(self.ap, self.limit)


Results = Union[Classification, Detection]


def _verdict(measure: float, limit: Optional[float]) -> Optional[str]:
    if limit is None:
        return None
    # The evaluator's AP of a model without fault is 1 - 2e-16.
    return "pass" if measure >= limit - 1e-12 else "fail"


def _task(results: Results) -> str:
    return "classification" if isinstance(results, Classification) else "detection"


def write_accuracy(path: str, results: Results, out: TextIO) -> None:
    """Writes the results; "-" is the stream `out`."""
    write_json(path, {**headed(FORM, results), "task": _task(results), "verdict": results.verdict},
               out)


def read_accuracy(path: AnyPath) -> Results:
    """Reads results; raises Unreadable when they are damaged or contradict themselves."""
    value = parse_json(read_regular(path), path, FORM)
    if not isinstance(value, dict) or value.get("format") != FORM.name:
        raise Unreadable(f"{path} was not written by {FORM.name}")
    check_version(value, path, FORM)
    kind: Any = Classification if value.get("task") == "classification" else Detection
    results: Results = decoded(kind, value, path, FORM)
    if (value.get("task"), value.get("verdict")) != (_task(results), results.verdict):
        raise Unreadable(f"{path} contradicts itself in its task or verdict: {FORM.remedy}")
    if isinstance(results, Classification) and not _square(results):
        raise Unreadable(f"{path} has a confusion matrix that does not fit its classes: "
                         f"{FORM.remedy}")
    return results


def _square(results: Classification) -> bool:
    size = len(results.classes)
    return len(results.confusion) == size and all(len(row) == size for row in results.confusion)
