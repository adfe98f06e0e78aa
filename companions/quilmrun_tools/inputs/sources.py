"""What inputs are made of: pictures, arrays and random values, found by the user's words for them.

Every source is an item with a `load`, which may run on any thread.
"""

import functools
import hashlib
import os
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Optional, Protocol

import numpy as np
from PIL import Image

from quilmrun_tools.artifacts import element_types
from quilmrun_tools.artifacts.prepared_inputs import Source
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.inputs import pictures
from quilmrun_tools.inputs import preview

ARRAY_SUFFIXES = (".npy", ".npz")
LIST_SUFFIXES = (".txt", ".lst")


@dataclass(frozen=True)
class Loaded:
    """One item as elements of its input."""
    label: str
    values: np.ndarray
    source: Source
    shown: Optional[Image.Image] = None  # small, for the preview


class Item(Protocol):
    """A source of one picture, or of one batch of other values."""

    def load(self) -> Loaded:
        """Raises Unreadable when there is no such thing in the source."""


@dataclass(frozen=True)
class PictureItem:
    """A file with one picture."""
    path: Path
    preparation: pictures.Preparation
    in_preview: bool

    def load(self) -> Loaded:
        try:
            content = self.path.read_bytes()
        except OSError as error:
            raise Unreadable(f"{self.path}: {error.strerror}") from error
        try:
            image = pictures.open_picture(content)
            pixels = self.preparation.pixels(image)
        except Unreadable as error:
            raise Unreadable(f"{self.path}: {error}") from error
        shown = preview.thumbnail(self.preparation.shown(pixels)) if self.in_preview else None
        return Loaded(self.path.stem, self.preparation.elements(pixels),
                      Source(str(self.path.absolute()), hashlib.sha256(content).hexdigest(),
                             *image.size), shown)


@dataclass(frozen=True)
class ArrayItem:
    """Some rows of an array, or all of it, as one batch."""
    path: Path
    member: str  # of an .npz
    rows: Optional[slice]
    dtype: np.dtype

    def load(self) -> Loaded:
        array = _array(self.path, self.member)
        place = f"[{self.member}]" if self.member else ""
        if self.rows is not None:
            array = array[self.rows]
            place += f"[{self.rows.start}]"
        return Loaded(self.path.stem + place.strip("]"),
                      element_types.convert(np.asarray(array), self.dtype),
                      Source(str(self.path.absolute()) + place, _digest(self.path)))


@dataclass(frozen=True)
class RandomItem:
    """Random values for one batch, the same ones for the same seed, input and inference."""
    tensor: Tensor
    dtype: np.dtype
    seed: tuple[int, int, int]
    low: float
    high: float

    def load(self) -> Loaded:
        generator = np.random.default_rng(self.seed)
        if self.dtype.kind == "f":
            values = generator.uniform(self.low, self.high, self.tensor.dims)
        else:
            values = generator.integers(int(self.low), int(self.high), self.tensor.dims,
                                        endpoint=True)
        return Loaded("random", element_types.convert(values, self.dtype), Source("random"))


def random_items(tensor: Tensor, count: int, seed: tuple[int, int],
                 bounds: Optional[tuple[float, float]]) -> list[Item]:
    """Floats from 0 to 1, 8-bit integers of their whole range, others from 0 to 255, or within
    `bounds`."""
    dtype = element_types.dtype_of(tensor)
    low, high = bounds or ((0, 1) if dtype.kind == "f" else
                           element_types.limits(dtype) if dtype.itemsize == 1 else (0, 255))
    return [RandomItem(tensor, dtype, (*seed, inference), low, high) for inference in range(count)]


def find_items(words: list[str], tensor: Tensor, options: pictures.Options,
               previews: int) -> list[Item]:
    """The items of one input in the order of the user's words, those of a folder by their names.
    The first `previews` pictures are shown in the preview."""
    preparation: list[pictures.Preparation] = []  # made once, and only for pictures
    items: list[Item] = []
    for path in (path for word in words for path in _files(Path(word))):
        if path.suffix.lower() in ARRAY_SUFFIXES:
            items += _array_items(path, tensor)
            continue
        if not preparation:
            preparation.append(pictures.Preparation(tensor, options))
        items.append(PictureItem(path, preparation[0], len(items) < previews))
    # A batch of several pictures would be filled up with whole batches of an array.
    if preparation and preparation[0].shape.count > 1 and \
            not all(isinstance(item, PictureItem) for item in items):
        raise Unreadable(f"{tensor.name} takes {preparation[0].shape.count} pictures at a time: "
                         "give it either pictures or arrays")
    return items


def _files(word: Path, within_list: bool = False) -> Iterator[Path]:
    """Pictures and arrays that a word stands for: a folder, a text list, or the file itself."""
    try:
        if word.is_dir():
            yield from _folder(word)
        elif word.suffix.lower() in LIST_SUFFIXES and not within_list:
            lines = word.read_text(encoding="utf-8", errors="surrogateescape").split("\n")
            names = [line.rstrip("\r") for line in lines if line.strip()]
            if not names:
                raise Unreadable(f"{word} names no files: write one path a line, relative to it")
            for name in names:
                yield from _files(word.parent / name, within_list=True)
        elif not word.exists() and not within_list:
            raise Unreadable(f"there is no {word}: name a folder, a picture, an array or a list")
        else:
            yield word
    except OSError as error:
        raise Unreadable(f"cannot read {word}: {error.strerror}") from error


def _folder(folder: Path) -> list[Path]:
    names = sorted(name for name in os.listdir(folder) if not name.startswith("."))
    found = [folder / name for name in names
             if Path(name).suffix.lower() in pictures.SUFFIXES + ARRAY_SUFFIXES]
    if not found:
        deeper = [name for name in names if (folder / name).is_dir()]
        raise Unreadable(f"{folder} holds no pictures or arrays" + (
            f", but folders: name those, as in {folder / deeper[0]}" if deeper else
            f" ({', '.join(pictures.SUFFIXES + ARRAY_SUFFIXES)})"))
    return found


@functools.lru_cache(maxsize=2)  # the rows of an .npz come one after another
def _array(path: Path, member: str) -> np.ndarray:
    """An array, mapped into memory where the file allows."""
    try:
        if member:
            with np.load(path, allow_pickle=False) as archive:
                return archive[member]
        return np.load(path, mmap_mode="r", allow_pickle=False)
    except OSError as error:
        raise Unreadable(f"cannot read {path}: {error.strerror or error}") from error
    except Exception as error:  # zip and NumPy raise errors of many kinds  # pylint: disable=W0718
        raise Unreadable(f"{path} is no array of numbers, or was cut short: save it again with "
                         "numpy.save") from error


@functools.lru_cache(maxsize=64)
def _digest(path: Path) -> str:
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while chunk := file.read(1 << 20):
            digest.update(chunk)
    return digest.hexdigest()


def _array_items(path: Path, tensor: Tensor) -> Iterator[Item]:
    dtype = element_types.dtype_of(tensor)
    for member in _members(path):
        array = _array(path, member)
        if array.dtype.kind not in "fiub":
            raise Unreadable(f"{path} holds elements of the type {array.dtype}, not numbers")
        for rows in _batches(array.shape, tensor, path):
            yield ArrayItem(path, member, rows, dtype)


def _members(path: Path) -> list[str]:
    if path.suffix.lower() == ".npy":
        return [""]
    try:
        with np.load(path, allow_pickle=False) as archive:
            return list(archive.files)
    except Exception as error:  # as above  # pylint: disable=W0718
        raise Unreadable(f"{path} is no archive of arrays, or was cut short: save it again with "
                         "numpy.savez") from error


def _batches(shape: tuple[int, ...], tensor: Tensor, path: Path) -> list[Optional[slice]]:
    """How an array divides into batches of an input; dimensions of 1 do not matter.

    Where an input's first dimension is more than 1, as that of frames, the last batch may be
    shorter.
    """
    def bare(dims: tuple[int, ...]) -> list[int]:
        return [dim for dim in dims if dim != 1]

    if bare(shape) == bare(tensor.dims):
        return [None]
    if shape and bare(shape[1:]) == bare(tensor.dims[1:]):
        step = tensor.dims[0] if len(shape) == len(tensor.dims) else 1
    elif shape and bare(shape[1:]) == bare(tensor.dims):
        step = 1
    else:
        raise Unreadable(f"{path} holds {list(shape)}, but {tensor.name} takes "
                         f"{list(tensor.dims)}: transpose or cut the array, or give one for each "
                         "inference")
    return [slice(at, at + step) for at in range(0, shape[0], step)]
