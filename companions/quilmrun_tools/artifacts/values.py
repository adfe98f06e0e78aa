"""Values of an output in a file, read in chunks: a .bin of quilmrun, or a NumPy array."""

import functools
import math
import os
import re
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Any, Iterator

import numpy as np

from quilmrun_tools.artifacts.element_types import FLOATS, HALF_BITS
from quilmrun_tools.common.decoding import not_in_json
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import (AnyPath, cannot_read, open_regular, regular_handle,
                                         size_of_regular)

Array = np.ndarray[Any, Any]

_DTYPE = re.compile(r"[<>|]?(?:f[248]|[iu][1248]|b1)")


@functools.lru_cache(maxsize=64)
def _dtype(kind: str) -> "np.dtype[Any] | None":
    """What Values.type stands for; None for what is no type of real numbers."""
    if kind == HALF_BITS:
        return np.dtype(FLOATS)
    return np.dtype(kind) if _DTYPE.fullmatch(kind) else None


@dataclass(frozen=True)
class Values:
    """`count` elements of a type, from `offset` bytes on in a file."""
    path: Path
    offset: int
    type: str  # NumPy's, as "<f4"; or element_types.HALF_BITS
    count: int
    rest: int = not_in_json(default=0)  # bytes after them that are no whole element

    @property
    def dtype(self) -> "np.dtype[Any]":
        """The type of the elements in the file."""
        dtype = _dtype(self.type)
        if dtype is None:
            raise Unreadable(f"{self.path}: {self.type!r} is no type of real numbers")
        return dtype

    @property
    def cut_short(self) -> bool:
        """Whether the file ends within an element."""
        return self.rest != 0

    @property
    def bytes(self) -> int:
        """Of the elements, with the rest."""
        return self.count * self.dtype.itemsize + self.rest

    def section(self, start: int, count: int) -> "Values":
        """Some of the values."""
        if (start, count, self.rest) == (0, self.count, 0):
            return self
        return replace(self, offset=self.offset + start * self.dtype.itemsize, count=count, rest=0)


def of_dump(path: Path, kind: str = FLOATS) -> Values:
    """The values in a .bin of quilmrun that holds elements of the type `kind`, as
    element_types.stored_as() names it."""
    count, rest = divmod(size_of_regular(path), 4)
    return Values(path, 0, kind, count, rest)


@dataclass(frozen=True)
class ArrayFile:
    """Where the elements of a .npy are; in C order."""
    path: Path
    offset: int
    type: str
    shape: tuple[int, ...]

    @property
    def size(self) -> int:
        """All elements."""
        return math.prod(self.shape)

    def part(self, index: int, parts: int) -> Values:
        """One of as many equal parts."""
        count = self.size // parts
        return Values(self.path, self.offset, self.type, self.size).section(index * count, count)


def read_array_file(path: Path) -> ArrayFile:
    """Reads the header of a .npy; raises Unreadable unless it is a whole array of real numbers."""
    with open_regular(path) as file:
        try:
            formats: Any = np.lib.format  # which has no type hints
            read = {(1, 0): formats.read_array_header_1_0,
                    (2, 0): formats.read_array_header_2_0}[formats.read_magic(file)]
            shape, fortran, dtype = read(file)
            whole = all(dim >= 0 for dim in shape) and \
                file.tell() + math.prod(shape) * dtype.itemsize <= os.fstat(file.fileno()).st_size
            offset = file.tell()
        # NumPy evaluates the header as Python, which may raise nearly anything.
        except Exception as error:  # pylint: disable=broad-exception-caught
            raise _no_array(path) from error
    if not whole:
        raise _no_array(path)
    if not _DTYPE.fullmatch(dtype.str):
        raise Unreadable(f"{path} holds elements of the type {dtype}, not real numbers")
    if fortran and sum(dim > 1 for dim in shape) > 1:
        raise Unreadable(f"{path} is not in C order: save it again with "
                         "numpy.save(path, numpy.ascontiguousarray(array))")
    return ArrayFile(path, offset, dtype.str, shape)


def _no_array(path: AnyPath) -> Unreadable:
    return Unreadable(f"{path} is no array of numbers, or was cut short: save it again with "
                      "numpy.save")


class Reader:
    """Reads values chunk by chunk into a buffer of its own, which the next chunk overwrites."""

    def __init__(self, chunk: int) -> None:
        self._chunk = chunk  # elements
        self._buffer = memoryview(bytearray(chunk * 8))
        self._numbers = np.empty(chunk)

    def chunks(self, values: Values) -> Iterator[Array]:
        """Arrays of the elements as they are in the file."""
        dtype = values.dtype
        handle = regular_handle(values.path)
        try:
            for at in range(0, values.count, self._chunk):
                count = min(self._chunk, values.count - at)
                window = self._buffer[:count * dtype.itemsize]
                _fill(handle, window, values.offset + at * dtype.itemsize, values.path)
                yield np.frombuffer(window, dtype)
        except OSError as error:
            raise cannot_read(values.path, error) from error
        finally:
            os.close(handle)

    def numbers(self, values: Values) -> Iterator[Array]:
        """The same as the numbers that they stand for, in 64-bit floats, which the next chunk
        overwrites too."""
        for chunk in self.chunks(values):
            numbers = self._numbers[:len(chunk)]
            numbers[:] = _half_floats(chunk, values) if values.type == HALF_BITS else chunk
            yield numbers

    def whole(self, values: Values) -> Array:
        """All numbers at once; for outputs that are known to be small."""
        whole, at = np.empty(values.count), 0
        for numbers in self.numbers(values):
            whole[at:at + len(numbers)] = numbers
            at += len(numbers)
        return whole


def _fill(handle: int, window: memoryview, offset: int, path: Path) -> None:
    """Reads until the window is full."""
    while len(window):
        count = os.preadv(handle, [window], offset)
        if count == 0:
            raise Unreadable(f"{path} is shorter than it was, or than what refers to it says")
        window, offset = window[count:], offset + count


def _half_floats(chunk: Array, values: Values) -> Array:
    """What the bits spell that stand in a chunk as numbers."""
    with np.errstate(invalid="ignore"):
        bits = chunk.astype(np.uint16)
    if not np.array_equal(bits, chunk):
        raise Unreadable(f"{values.path} does not hold half floats: give --type NAME=float")
    return bits.view(np.float16)
