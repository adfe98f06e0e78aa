"""Annotated objects, from a file in COCO's JSON format."""

from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional, Union

import numpy as np

from quilmrun_tools.accuracy.average_precision import Objects
from quilmrun_tools.common.decoding import Wrong, decode
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import read_regular
from quilmrun_tools.common.json_files import Format, parse_json

_FORM = Format("an annotation tool", 1, "give annotations in COCO's JSON format")


@dataclass(frozen=True)
class Image:
    """A picture that was annotated."""
    id: int
    file_name: str = ""
    width: int = 0  # pixels; 0 when the file does not tell
    height: int = 0

    def __str__(self) -> str:
        return self.file_name or f"image {self.id}"


@dataclass(frozen=True)
class _Category:
    id: int
    name: str


@dataclass(frozen=True)
class _Annotation:
    image_id: int
    category_id: int
    bbox: tuple[float, float, float, float]  # left, top, width, height
    area: Optional[float] = None  # of the outline
    iscrowd: Union[int, bool] = 0


@dataclass(frozen=True)
class _File:
    images: list[Image]
    annotations: list[_Annotation]
    categories: list[_Category]


@dataclass
class Annotations:
    """All of a file."""
    images: list[Image]  # in the file's order
    categories: dict[int, str]  # by id, in the file's order
    objects: dict[int, dict[int, Objects]] = field(default_factory=dict)  # by image and category


def read_annotations(path: str) -> Annotations:
    """Reads and checks a file; raises Unreadable with what cannot be used."""
    value = parse_json(read_regular(path), Path(path), _FORM)
    try:
        file = decode(_File, value)
    except Wrong as wrong:
        raise Unreadable(f"{path} is not in COCO's format: {wrong}") from None
    result = Annotations(file.images, {one.id: one.name for one in file.categories})
    if len({image.id for image in file.images}) < len(file.images) or \
            len(result.categories) < len(file.categories):
        raise Unreadable(f"{path} has two images or two categories with the same id")
    if not file.images or not file.categories:
        raise Unreadable(f"{path} has no images or no categories")
    _group(path, file, result)
    return result


def _group(path: str, file: _File, annotations: Annotations) -> None:
    """Sorts objects by image and category."""
    known = {image.id for image in file.images}
    found: dict[tuple[int, int], list[_Annotation]] = {}
    for at, one in enumerate(file.annotations):
        if one.image_id not in known or one.category_id not in annotations.categories:
            raise Unreadable(f"{path}: annotations[{at}] names an image or a category that the "
                             "file does not have")
        if not np.isfinite(one.bbox).all():
            raise Unreadable(f"{path}: annotations[{at}].bbox is not finite")
        found.setdefault((one.image_id, one.category_id), []).append(one)
    for (image, category), group in found.items():
        annotations.objects.setdefault(image, {})[category] = Objects(
            np.array([one.bbox for one in group]),
            np.array([one.bbox[2] * one.bbox[3] if one.area is None else one.area
                      for one in group]),
            np.array([bool(one.iscrowd) for one in group]))
