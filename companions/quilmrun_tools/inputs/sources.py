"""What inputs are made of: pictures, frames, arrays and random values.

Every source is an item with a `load`, which may run on any thread.
"""

import functools
import hashlib
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional, Protocol

import numpy as np
from PIL import Image

from quilmrun_tools.artifacts import element_types
from quilmrun_tools.artifacts.prepared_inputs import Source
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import open_regular, read_regular, size_of_regular
from quilmrun_tools.inputs.checksum import checksum
from quilmrun_tools.inputs.find_files import RAW_SUFFIXES
from quilmrun_tools.inputs import arrays
from quilmrun_tools.inputs import pictures
from quilmrun_tools.inputs import preview

Array = np.ndarray[Any, Any]


@dataclass(frozen=True)
class Loaded:
    """One item as elements of its input."""
    label: str
    values: Array
    source: Source
    shown: Optional[Image.Image] = None  # small, for the preview
    out_of_range: int = 0  # values that the input's type cannot hold


class Item(Protocol):
    """A source of one picture, or of one batch of other values."""

    def load(self) -> Loaded:
        """Raises Unreadable when there is no such thing in the source."""


@dataclass(frozen=True, slots=True)
class PictureItem:
    """A file with one picture."""
    path: Path
    preparation: pictures.Preparation
    in_preview: bool

    def load(self) -> Loaded:
        """Decodes and prepares it."""
        content = read_regular(self.path)
        try:
            picture = pictures.open_picture(content, self.preparation.largest)
            pixels, geometry = self.preparation.sized(picture)
        except Unreadable as error:
            raise Unreadable(f"{self.path}: {error}") from error
        shown = preview.thumbnail(self.preparation.shown(pixels)) if self.in_preview else None
        source = Source(str(self.path.absolute()), hashlib.sha256(content).hexdigest(),
                        picture.width, picture.height, geometry.scale, geometry.offset)
        return Loaded(self.path.stem, self.preparation.elements(pixels), source, shown)


@dataclass(frozen=True)
class FrameItem:
    """A part of a file that is in the model's format already, such as a frame of a camera."""
    path: Path
    number: Optional[int]  # of the frame; None for the only one
    dtype: "np.dtype[Any]"
    elements: int
    preparation: Optional[pictures.Preparation]  # None: not known to be a picture
    in_preview: bool

    def load(self) -> Loaded:
        """Reads the part byte for byte."""
        size = self.elements * self.dtype.itemsize
        content = bytearray()
        with open_regular(self.path) as file:
            file.seek((self.number or 0) * size)
            while len(content) < size and (part := file.read(size - len(content))):
                content += part
        if len(content) < size:
            raise Unreadable(f"{self.path}: became shorter while it was read")
        place = "" if self.number is None else f"[{self.number}]"
        values = np.frombuffer(content, self.dtype)
        image, shape = None, self.preparation.shape if self.preparation else None
        if self.preparation and self.in_preview:
            image = self.preparation.shown_frame(values)
        source = Source(str(self.path.absolute()) + place, _digest(self.path))
        if shape:
            source = Source(source.path, source.sha256, shape.width, shape.height, (1.0, 1.0),
                            (0.0, 0.0))
        return Loaded(self.path.stem + place.strip("]"), values, source,
                      preview.thumbnail(image) if image else None)


@dataclass(frozen=True)
class ArrayItem:
    """Some rows of an array, or all of it, as one batch."""
    array: arrays.ArraySource
    rows: Optional[slice]
    tensor: Tensor

    def load(self) -> Loaded:
        """Reads the rows and converts their type."""
        values = np.asarray(self.array.read() if self.rows is None else
                            self.array.read()[self.rows])
        place = f"[{self.array.member}]" if self.array.member else ""
        place += f"[{self.rows.start}]" if self.rows is not None else ""
        dtype = element_types.dtype_of(self.tensor)
        if dtype.kind != "f" and values.dtype.kind == "f" and not np.isfinite(values).all():
            raise Unreadable(f"{self.array.path}{place}: holds NaN or infinity, which no "
                             f"{self.tensor.type_name} can be: replace these values")
        path = self.array.path
        return Loaded(path.stem + place.strip("]"), element_types.convert(values, dtype),
                      Source(str(path.absolute()) + place, _digest(path)),
                      out_of_range=element_types.saturated(values, dtype))


@dataclass(frozen=True)
class RandomItem:
    """Random values for one batch, the same ones for the same seed, input and inference."""
    tensor: Tensor
    seed: tuple[int, int, int]
    low: float
    high: float

    def load(self) -> Loaded:
        """Makes the values up."""
        generator = np.random.default_rng(self.seed)
        dtype = element_types.dtype_of(self.tensor)
        values: Array
        if dtype.kind == "f":
            values = generator.uniform(self.low, self.high, self.tensor.dims)
        else:
            values = generator.integers(int(self.low), int(self.high), self.tensor.dims,
                                        endpoint=True)
        return Loaded("random", element_types.convert(values, dtype), Source("random"),
                      out_of_range=element_types.saturated(values, dtype))


def random_items(tensor: Tensor, count: int, seed: tuple[int, int],
                 bounds: Optional[tuple[float, float]]) -> list[Item]:
    """Floats from 0 to 1, 8-bit integers of their whole range, others from 0 to 255, or within
    `bounds`."""
    dtype = element_types.dtype_of(tensor)
    low, high = bounds or ((0, 1) if dtype.kind == "f" else
                           element_types.limits(dtype) if dtype.itemsize == 1 else (0, 255))
    return [RandomItem(tensor, (*seed, inference), low, high) for inference in range(count)]


@functools.lru_cache(maxsize=64)  # the parts of a file come one after another
def _digest(path: Path) -> str:
    return checksum(path)


class Finder:
    """Finds the items of one input."""

    def __init__(self, tensor: Tensor, options: pictures.Options, previews: int) -> None:
        """The first `previews` pictures are shown in the preview."""
        self._tensor = tensor
        self._options = options
        self._previews = previews
        self._items: list[Item] = []

    @functools.cached_property
    def _preparation(self) -> pictures.Preparation:
        """Made once, and only for pictures: other inputs have no shape of such."""
        return pictures.Preparation(self._tensor, self._options)

    def find(self, paths: list[Path]) -> list[Item]:
        """The items of files in their order."""
        for path in paths:
            if path.suffix.lower() in arrays.SUFFIXES:
                self._items += self._of_array(path)
            elif path.suffix.lower() in pictures.SUFFIXES or self._is_picture(path):
                self._items.append(PictureItem(path, self._preparation,
                                               len(self._items) < self._previews))
            else:
                self._add_frames(path)
        self._check_batches()
        return self._items

    def _of_array(self, path: Path) -> list[Item]:
        return [ArrayItem(array, rows, self._tensor)
                for array in arrays.arrays_in(path, self._options.largest)
                for rows in arrays.batches(array, self._tensor)]

    @staticmethod
    def _is_picture(path: Path) -> bool:
        """Whether a file without a suffix that tells begins as a picture."""
        if path.suffix.lower() in RAW_SUFFIXES:
            return False
        with open_regular(path) as file:
            start = file.read(8)
        return start.startswith((b"\x89PNG\r\n\x1a\n", b"\xff\xd8\xff", b"II*\0", b"MM\0*",
                                 b"BM"))

    def _add_frames(self, path: Path) -> None:
        """Raw data: as many inputs as the file's size holds."""
        preparation = self._frames()
        count = preparation.shape.count if preparation else 1
        elements = self._tensor.elements // count
        dtype = element_types.dtype_of(self._tensor)
        size, each = size_of_regular(path), elements * dtype.itemsize
        if not size or size % each:
            raise Unreadable(f"{path} has {size} bytes, which are neither a picture nor raw data "
                             f"of {self._tensor.name}: these have {each} bytes, or several times "
                             "as many")
        for number in range(size // each):
            self._items.append(FrameItem(path, number if size > each else None, dtype, elements,
                                         preparation, len(self._items) < self._previews))

    def _frames(self) -> Optional[pictures.Preparation]:
        """How frames are shown; None where they are no pictures for all that is known."""
        try:
            return self._preparation
        except Unreadable:
            if self._options.color or self._options.layout or self._options.picture:
                raise
            return None

    def _check_batches(self) -> None:
        """A batch of several pictures would be filled up with whole batches of an array."""
        single = [item for item in self._items if isinstance(item, (PictureItem, FrameItem))]
        count = pictures_at_a_time(single[0]) if single else 1
        if count > 1 and len(single) < len(self._items):
            raise Unreadable(f"{self._tensor.name} takes {count} pictures at a time: give it "
                             "either pictures or arrays")


def pictures_at_a_time(item: Item) -> int:
    """How many such items make one batch."""
    preparation = preparation_of(item)
    return preparation.shape.count if preparation else 1


def preparation_of(item: Item) -> Optional[pictures.Preparation]:
    """How a picture is prepared; None for other items."""
    return item.preparation if isinstance(item, (PictureItem, FrameItem)) else None
