"""Judges a detector's run: boxes of all pictures against annotated objects."""

from dataclasses import dataclass, field
from typing import Any, Callable, Iterator, Optional, Sequence

import numpy as np

from quilmrun_tools.accuracy import average_precision, boxes
from quilmrun_tools.accuracy.annotations import Annotations, Image
from quilmrun_tools.accuracy.average_precision import Detections, Matches, Objects
from quilmrun_tools.accuracy.boxes import BoxFormat, Parts, Placement, Rows
from quilmrun_tools.accuracy.pictures import (Names, RunPicture, check_whole, count_of, pictures_of)
from quilmrun_tools.artifacts import accuracy_results as results
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_log import name_in_files
from quilmrun_tools.artifacts.run_outputs import RunOutputs, text
from quilmrun_tools.artifacts.values import Reader
from quilmrun_tools.common.errors import Unreadable

Array = np.ndarray[Any, Any]

_WORST = 12  # pictures that are kept with their boxes
_DRAWN = 200  # boxes that are kept of each
_CHUNK = 1 << 20  # elements that are read at a time


@dataclass(frozen=True)
class BoxOptions:
    """How the outputs are read."""
    form: BoxFormat
    names: dict[str, Optional[str]]  # of outputs: "boxes", "scores", "classes", "count"
    are_ids: bool  # class values are ids of categories
    min_score: float
    normalised: Optional[bool]  # coordinates are shares of the input; None: by the values


@dataclass
class Found:
    """All pictures of a run with what was detected, in the coordinates of the model."""
    pictures: list[RunPicture] = field(default_factory=list)
    rows: list[Rows] = field(default_factory=list)


class BoxReader:
    """Reads the boxes of a run."""

    def __init__(self, outputs: RunOutputs, options: BoxOptions) -> None:
        self._outputs = outputs
        self._options = options
        self._keys = {part: _find(outputs, name) for part, name in options.names.items() if name}
        self._check_row()

    def _check_row(self) -> None:
        """A row has to be what the log says of the last dimension, where there are rows."""
        tensor = self._outputs.tensor(self._keys["boxes"])
        width = len(self._options.form.columns)
        if tensor and len(tensor.dims) > 1 and tensor.dims[-1] != width:
            raise Unreadable(f"{tensor.name} has {list(tensor.dims)}, but --box-format names "
                             f"{width} columns, not {tensor.dims[-1]}")

    def read(self, progress: Callable[[list[int]], Iterator[int]]) -> Found:
        """The detections of all pictures."""
        check_whole(self._outputs)
        result, reader = Found(), Reader(_CHUNK)
        for run in progress(self._outputs.runs):
            count = self._pictures_of(run)
            parts = Parts(**{part: self._values(run, key, reader)
                             for part, key in self._keys.items()})
            try:
                rows = boxes.rows_of(parts, self._options.form, count, self._options.min_score)
            except Unreadable as error:
                raise Unreadable(f"{self._outputs.path}/{run}: {text(self._keys['boxes'])} {error}"
                                 ) from None
            pictures = pictures_of(self._outputs, run, count)
            result.pictures += pictures
            result.rows += rows[:len(pictures)]
        return result

    def _values(self, run: int, key: Key, reader: Reader) -> Array:
        values = self._outputs.values_of(run).get(key)
        if not values or values.cut_short:
            raise Unreadable(f"{self._outputs.path}/{run} has no whole output {text(key)}")
        return reader.whole(values)

    def _pictures_of(self, run: int) -> int:
        """How many pictures an inference has rows for."""
        first = self._outputs.runs[0]
        log = self._outputs.log
        known = [count_of(self._outputs, first) or 1, log.batch_size if log else 1]
        if run == first or not count_of(self._outputs, run):
            return max(known)
        return max(*known, count_of(self._outputs, run) or 1)


def _find(outputs: RunOutputs, name: str) -> Key:
    found = [key for key in outputs.keys() if key[0] == name_in_files(name) and key[1] == 0]
    if not found:
        raise Unreadable(f"there is no output {name} in {outputs.path}, but "
                         f"{', '.join(map(text, outputs.keys()))}")
    return found[0]


@dataclass
class JudgedPicture:
    """One picture with its matches."""
    picture: RunPicture
    image: Image
    detected: dict[int, Detections]  # by category
    annotated: dict[int, Objects]
    matches: dict[int, Matches]


class Judge:
    """Brings detections and annotations together."""

    def __init__(self, annotations: Annotations, outputs: RunOutputs, options: BoxOptions) -> None:
        self._annotations = annotations
        self._outputs = outputs
        self._options = options
        self._unknown = self._odd = 0
        self.notes: list[str] = []

    def compare(self, found: Found) -> list[JudgedPicture]:
        """All pictures, in the order of their images' ids."""
        images = self._images(found.pictures)
        normalised = self._options.normalised
        if normalised is None:
            normalised = boxes.are_normalised(found.rows)
        done = []
        for picture, rows, image in zip(found.pictures, found.rows, images):
            corners = boxes.carry_back(rows.corners, self._placement(picture, image, normalised),
                                       normalised)
            detected = self._by_category(corners, rows)
            annotated = self._annotations.objects.get(image.id, {})
            done.append(JudgedPicture(picture, image, detected, annotated,
                                 average_precision.match_picture(detected, annotated)))
        self._tell(len(done), normalised)
        return sorted(done, key=lambda one: one.image.id)

    def _images(self, pictures: Sequence[RunPicture]) -> list[Image]:
        """The annotated image of each picture: by its name, or by its number without
        inputs.json."""
        known = self._annotations.images
        if not self._outputs.inputs:
            if len(pictures) > len(known):
                raise Unreadable(f"{self._outputs.path} has {len(pictures)} pictures, and only "
                                 f"{len(known)} are annotated")
            self.notes.append("there is no inputs.json: picture k is the k-th annotated image, and "
                              "coordinates are its pixels")
            return known[:len(pictures)]
        names = Names(pictures)
        found: dict[int, Image] = {}
        for image in known:
            places = names.find(image.file_name) if image.file_name else []
            if len({pictures[at].path for at in places}) > 1 or len(places) > 1:
                raise Unreadable(f"{image} is the name of {len(places)} pictures of the run")
            if places and places[0] in found:
                raise Unreadable(f"{pictures[places[0]]} has the name of several annotated images")
            found.update((at, image) for at in places)
        missing = [str(picture) for at, picture in enumerate(pictures) if at not in found]
        if missing:
            raise Unreadable(f"{len(missing)} of {len(pictures)} pictures are not annotated, such "
                             f"as {missing[0]}")
        return [found[at] for at in range(len(pictures))]

    def _placement(self, picture: RunPicture, image: Image, normalised: bool) -> Placement:
        """Where the picture lies in the model's input."""
        source = picture.source
        if not source:
            if normalised and not (image.width and image.height):
                raise Unreadable(f"{image} has no width and height in the annotations, which "
                                 "coordinates from 0 to 1 need")
            return Placement(image.width, image.height)
        if image.width and image.height and (image.width, image.height) != (source.width,
                                                                            source.height):
            raise Unreadable(f"{image} was annotated at {image.width} x {image.height} pixels, but "
                             f"{picture} has {source.width} x {source.height}: use the same "
                             "picture")
        shape = self._outputs.inputs.model.pictures.get(picture.input) if self._outputs.inputs \
            else None
        if not source.scale or not source.offset or not shape:
            raise Unreadable("inputs.json does not say where pictures lie in the input: prepare "
                             "the inputs again with this version of quilmrun-inputs")
        return Placement(shape.width, shape.height, source.scale, source.offset)

    def _by_category(self, corners: Array, rows: Rows) -> dict[int, Detections]:
        self._odd += int(np.count_nonzero(~np.isfinite(rows.corners).all(axis=1)))
        if len(self._annotations.categories) == 1 and not self._options.form.has("class") and \
                not self._options.names.get("classes"):
            ids = np.full(len(rows.scores), next(iter(self._annotations.categories)))
        else:
            ids = boxes.category_ids(rows.classes, [*self._annotations.categories],
                                     self._options.are_ids)
        self._unknown += int(np.count_nonzero(ids < 0))
        return {int(one): Detections(corners[ids == one], rows.scores[ids == one])
                for one in np.unique(ids) if one >= 0}

    def _tell(self, count: int, normalised: bool) -> None:
        """Notes of what is unusual."""
        if self._options.normalised is None and normalised:
            self.notes.append("coordinates are taken for shares of the input, 0 to 1 "
                              "(--coordinates)")
        if count < len(self._annotations.images):
            self.notes.append(f"{len(self._annotations.images) - count} annotated images are not "
                              "part of the run")
        if self._unknown:
            self.notes.append(f"{self._unknown} detections have an id that no category has, and "
                              "are left out")
        if self._odd:
            self.notes.append(f"{self._odd} boxes hold NaN or infinity, and count as wrong")


def summarise(path: str, compared: list[JudgedPicture], annotations: Annotations, notes: list[str]
              ) -> results.Detection:
    """The results of a run."""
    by_class = {category: [one.matches[category] for one in compared if category in one.matches]
                for category in annotations.categories}
    summary = average_precision.summarise(by_class)
    threshold = average_precision.best_threshold(
        matches for one in compared for matches in one.matches.values())
    objects = {category: sum(int(one.objects[average_precision.ALL]) for one in found)
               for category, found in by_class.items()}
    (small, medium, large), (ar1, ar10, ar100) = summary.ap_by_size, summary.recall
    return results.Detection(
        path, len(compared), sum(objects.values()),
        sum(len(found.scores) for one in compared for found in one.detected.values()),
        summary.ap, summary.ap50, summary.ap75, small, medium, large, ar1, ar10, ar100,
        [results.ClassDetection(name, summary.by_class[category], objects[category])
         for category, name in annotations.categories.items()],
        threshold, _worst(compared, annotations, threshold), notes=notes)


def _worst(compared: list[JudgedPicture], annotations: Annotations, threshold: float
           ) -> list[results.DetectedPicture]:
    """The pictures with most errors, wrong and missed, at a score."""
    drawn = [_drawn(one, annotations, threshold) for one in compared]
    order = sorted(drawn, key=lambda one: -(one.wrong + one.missed))
    return [one for one in order[:_WORST] if one.wrong + one.missed]


def _drawn(one: JudgedPicture, annotations: Annotations, threshold: float
           ) -> results.DetectedPicture:
    found: list[results.DrawnBox] = []
    for category, matches in one.matches.items():
        found += _boxes(one, category, annotations.categories[category], matches, threshold)
    counts = {kind: sum(box.kind == kind for box in found) for kind in ("right", "wrong", "missed")}
    size = (one.picture.source.width, one.picture.source.height) if one.picture.source else \
        (one.image.width, one.image.height)
    picture = one.picture.described() if one.picture.path else results.Picture(
        one.picture.run, one.picture.place, one.image.file_name)
    return results.DetectedPicture(picture, *size, **counts, boxes=found[:_DRAWN])


def _boxes(one: JudgedPicture, category: int, name: str, matches: Matches, threshold: float
           ) -> list[results.DrawnBox]:
    """The detections and missed objects of one class in one picture."""
    detected = one.detected.get(category, average_precision.none_detected()).best(
        average_precision.LIMITS[-1])
    annotated = one.annotated.get(category, average_precision.none_annotated())
    judged = average_precision.right_or_wrong(matches, threshold)
    drawn = [_box("right" if right else "wrong", name, detected.boxes[at], detected.scores[at])
             for at, right in enumerate(judged) if right is not None]
    partners = {int(partner) for partner, right in zip(matches.partner, judged) if right}
    return drawn + [_box("missed", name, annotated.boxes[at], results.UNDEFINED)
                    for at in range(len(annotated.areas))
                    if at not in partners and not annotated.crowd[at]]


def _box(kind: str, name: str, box: Array, score: float) -> results.DrawnBox:
    left, top, width, height = (round(float(value), 2) for value in box)
    return results.DrawnBox(kind, name, (left, top, width, height), float(score))
