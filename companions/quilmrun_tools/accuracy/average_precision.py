"""Average precision and recall of detected boxes, as COCO's evaluator defines them.

Detections are matched with annotated objects picture by picture and class by class, the best score
first, at ten thresholds of IoU (intersection over union). Crowds, and objects outside of a range of
sizes, neither count when they are found nor when they are missed.
"""

from dataclasses import dataclass, field
from typing import Any, Iterable, Optional

import numpy as np

from quilmrun_tools.artifacts.accuracy_results import UNDEFINED

Array = np.ndarray[Any, Any]

IOU_THRESHOLDS = np.linspace(0.5, 0.95, 10)
RECALL_POINTS = np.linspace(0.0, 1.0, 101)
LIMITS = (1, 10, 100)  # detections of one class in one picture that count
# Square pixels of the original picture, both ends included: all, small, medium, large.
AREA_RANGES = np.array([[0, 1e10], [0, 32 ** 2], [32 ** 2, 96 ** 2], [96 ** 2, 1e10]])
ALL = 0  # the index of the range that holds every size


@dataclass(frozen=True)
class Objects:
    """The annotated objects of one class in one picture."""
    boxes: Array  # n x 4: left, top, width, height
    areas: Array  # as annotated, which for outlines is less than the box
    crowd: Array  # bool


@dataclass(frozen=True)
class Detections:
    """What was detected of one class in one picture, in the order of the model's output."""
    boxes: Array  # n x 4: left, top, width, height
    scores: Array

    def best(self, limit: int) -> "Detections":
        """The best scores first; equal ones stay in their order."""
        order = np.argsort(-self.scores, kind="stable")[:limit]
        return Detections(self.boxes[order], self.scores[order])


@dataclass(frozen=True)
class Matches:
    """One class in one picture. Arrays are ranges x thresholds x detections, best score first."""
    scores: Array
    found: Array  # bool: an object was matched
    ignored: Array  # bool: neither right nor wrong
    objects: Array  # by range: how many there are to find
    partner: Array  # by detection: the object at the first threshold in all sizes, or -1


@dataclass
class Summary:
    """COCO's twelve numbers but for AR by size, and AP by class; UNDEFINED without objects."""
    ap: float
    ap50: float
    ap75: float
    ap_by_size: list[float]  # small, medium, large
    recall: list[float]  # at 1, 10 and 100 detections
    by_class: dict[int, float] = field(default_factory=dict)


def overlaps(boxes: Array, objects: Objects) -> Array:
    """IoU of detections x objects. Of a crowd, only the detection's own area is the union."""
    low = np.maximum(boxes[:, None, :2], objects.boxes[None, :, :2])
    high = np.minimum((boxes[:, :2] + boxes[:, 2:])[:, None],
                      (objects.boxes[:, :2] + objects.boxes[:, 2:])[None])
    shared = np.prod(np.maximum(high - low, 0), axis=2)
    own = np.prod(boxes[:, 2:], axis=1)[:, None]
    union = np.where(objects.crowd[None], own,
                     own + np.prod(objects.boxes[:, 2:], axis=1)[None] - shared)
    return np.divide(shared, union, out=np.zeros_like(shared), where=union > 0)


def _outside(areas: Array) -> Array:
    """ranges x areas: whether an area lies outside of a range."""
    return (areas[None] < AREA_RANGES[:, :1]) | (areas[None] > AREA_RANGES[:, 1:])


def match(detections: Detections, objects: Objects) -> Matches:
    """Matches one class in one picture."""
    best = detections.best(LIMITS[-1])
    ignored_objects = objects.crowd[None] | _outside(objects.areas)
    found, ignored, partner = _pair(overlaps(best.boxes, objects), objects.crowd, ignored_objects)
    ignored |= ~found & _outside(np.prod(best.boxes[:, 2:], axis=1))[:, None]
    return Matches(best.scores, found, ignored, np.count_nonzero(~ignored_objects, axis=1), partner)


def _pair(iou: Array, crowd: Array, ignored_objects: Array) -> tuple[Array, Array, Array]:
    """(found, ignored, partner) as Matches has them, by the overlaps of detections, best first, and
    objects. Each takes the object that fits best of those that are left; a crowd is always left."""
    shape = len(AREA_RANGES), len(IOU_THRESHOLDS)
    found, ignored = (np.zeros((*shape, len(iou)), bool) for _ in range(2))
    partner = np.full(len(iou), -1)
    free = np.ones((*shape, len(crowd)), bool)
    thresholds = np.minimum(IOU_THRESHOLDS, 1 - 1e-10)[None, :, None]
    for at in np.flatnonzero(iou.max(axis=1, initial=0) >= thresholds.min()):
        chosen, matched = _choose(iou[at], free & (iou[at] >= thresholds), ignored_objects)
        found[:, :, at] = matched
        ignored[:, :, at] = matched & np.take_along_axis(ignored_objects, chosen, axis=1)
        ranges, steps = np.nonzero(matched & ~crowd[chosen])
        free[ranges, steps, chosen[ranges, steps]] = False
        if matched[ALL, 0]:
            partner[at] = chosen[ALL, 0]
    return found, ignored, partner


def _choose(iou: Array, fits: Array, ignored: Array
            ) -> tuple[Array, Array]:
    """(object, whether there is any) for ranges x thresholds: of the objects that fit, one that
    counts before an ignored one, then the largest overlap, then the last."""
    counting = fits & ~ignored[:, None]
    candidates = np.where(counting.any(axis=2, keepdims=True), counting, fits)
    weight = np.where(candidates, iou, -1.0)[:, :, ::-1]
    return iou.size - 1 - np.argmax(weight, axis=2), candidates.any(axis=2)


class _Curves:
    """Precision at 101 points of recall, and the last recall, for one class."""

    def __init__(self, pictures: list[Matches], size: int, limit: int) -> None:
        """`pictures` in the order of their ids, which decides between equal scores."""
        self.objects = int(sum(one.objects[size] for one in pictures))
        scores = np.concatenate([one.scores[:limit] for one in pictures])
        order = np.argsort(-scores, kind="stable")
        found = np.concatenate([one.found[size, :, :limit] for one in pictures], 1)[:, order]
        ignored = np.concatenate([one.ignored[size, :, :limit] for one in pictures], 1)[:, order]
        self.right = np.cumsum(found & ~ignored, axis=1, dtype=np.float64)
        self.wrong = np.cumsum(~found & ~ignored, axis=1, dtype=np.float64)

    @property
    def recall(self) -> Array:
        """By threshold."""
        if not self.right.shape[1]:
            return np.zeros(len(IOU_THRESHOLDS))
        return self.right[:, -1] / self.objects

    def precision(self) -> Array:
        """thresholds x points of recall: the best precision at this recall or a higher one."""
        result = np.zeros((len(IOU_THRESHOLDS), len(RECALL_POINTS)))
        share = self.right / (self.right + self.wrong + np.spacing(1))
        best = np.maximum.accumulate(share[:, ::-1], axis=1)[:, ::-1]
        for row, right in enumerate(self.right):
            at = np.searchsorted(right / self.objects, RECALL_POINTS, side="left")
            inside = at < best.shape[1]
            result[row, inside] = best[row, at[inside]]
        return result


def summarise(by_class: dict[int, list[Matches]]) -> Summary:
    """The measures of all classes; the pictures of each in the order of their ids."""
    precision: dict[int, dict[int, Array]] = {size: {} for size in range(len(AREA_RANGES))}
    recall: dict[int, list[Array]] = {limit: [] for limit in LIMITS}
    for name, pictures in by_class.items():
        if not pictures:
            continue
        for size, known in precision.items():
            curves = _Curves(pictures, size, LIMITS[-1])
            if curves.objects:
                known[name] = curves.precision()
        for limit in LIMITS:
            curves = _Curves(pictures, ALL, limit)
            if curves.objects:
                recall[limit].append(curves.recall)
    whole = precision[ALL]
    return Summary(
        _mean(whole.values()), _mean(one[0] for one in whole.values()),
        _mean(one[5] for one in whole.values()),
        [_mean(precision[size].values()) for size in range(1, len(AREA_RANGES))],
        [_mean(recall[limit]) for limit in LIMITS],
        {name: _mean([whole[name]]) if name in whole else UNDEFINED for name in by_class})


def _mean(parts: Iterable[Array]) -> float:
    found = list(parts)
    return float(np.mean(np.stack(found))) if found else UNDEFINED


def best_threshold(pictures: Iterable[Matches]) -> float:
    """The score from which on detections give the best F1 of all classes, at an IoU of 0.5."""
    known = list(pictures)
    objects = sum(int(one.objects[ALL]) for one in known)
    counts = [~one.ignored[ALL, 0] for one in known]
    scores = np.concatenate([one.scores[counted] for one, counted in zip(known, counts)] or [[]])
    right = np.concatenate([one.found[ALL, 0][counted] for one, counted in zip(known, counts)]
                           or [[]])
    if not scores.size or not objects:
        return 0.0
    order = np.argsort(-scores, kind="stable")
    measure = 2 * np.cumsum(right[order]) / (np.arange(1, scores.size + 1) + objects)
    # Of equal scores all are taken or none.
    last = np.append(scores[order][1:] != scores[order][:-1], True)
    return float(scores[order][np.argmax(np.where(last, measure, -1))])


def none_detected() -> Detections:
    """A class that was not detected in a picture."""
    return Detections(np.zeros((0, 4)), np.zeros(0))


def none_annotated() -> Objects:
    """A class that a picture does not have."""
    return Objects(np.zeros((0, 4)), np.zeros(0), np.zeros(0, bool))


def match_picture(detected: dict[int, Detections], annotated: dict[int, Objects]
                  ) -> dict[int, Matches]:
    """{class: its matches} of one picture, for the classes that it has."""
    return {name: match(detected.get(name, none_detected()), annotated.get(name, none_annotated()))
            for name in sorted(detected.keys() | annotated.keys())}


def right_or_wrong(matches: Matches, threshold: float) -> list[Optional[bool]]:
    """By detection, whether it is right at an IoU of 0.5; None for one that does not count."""
    return [None if matches.ignored[ALL, 0, at] or score < threshold else
            bool(matches.found[ALL, 0, at]) for at, score in enumerate(matches.scores)]
