"""Values of an output in a file, read in chunks: a .bin of quilmrun, or a NumPy array.

quilmrun writes every output as 32-bit floats. Half floats appear there as the number that their 16
bits spell, and 32-bit integers as the float that their 32 bits spell.
"""

import io
import os
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Iterator, Optional

import numpy as np

from quilmrun_tools.common.errors import Unreadable

FLOAT, HALF, INT32 = "float", "half", "int32"
# By the type code of an output that the dump does not write as its value.
CODED = {1: HALF, 3: INT32}


@dataclass(frozen=True)
class Values:
    """`count` elements of a type, from `offset` bytes on in a file."""
    path: Path
    count: int
    bytes: int  # of them, a rest that is no whole element included
    offset: int = 0
    dtype: np.dtype = np.dtype("<f4")  # of the elements in the file
    coded: str = FLOAT  # what a .bin's floats stand for

    @property
    def cut_short(self) -> bool:
        return self.bytes % self.dtype.itemsize != 0

    def segments(self, largest: int) -> list["Values"]:
        """The same values in parts of at most so many elements."""
        size = self.dtype.itemsize
        return [replace(self, offset=self.offset + at * size, count=min(largest, self.count - at))
                for at in range(0, self.count, largest)]


def of_dump(path: Path, coded: str = FLOAT) -> Values:
    """The values in a .bin of quilmrun."""
    try:
        size = os.stat(path).st_size
    except OSError as error:
        raise Unreadable(f"cannot read {path}: {error.strerror}") from error
    return Values(path, size // 4, size, coded=coded)


def of_array(path: Path, runs: int, count: int) -> list[Values]:
    """The values in a .npy: one for each run of `count` elements when its first dimension divides
    into these or is that of all runs, otherwise all of it as those of one run."""
    try:
        array = np.load(path, mmap_mode="r", allow_pickle=False)
    except (OSError, ValueError, EOFError) as error:
        raise Unreadable(f"{path} is no array of numbers, or was cut short: save it again with "
                         "numpy.save") from error
    if array.dtype.kind not in "fiub":
        raise Unreadable(f"{path} holds elements of the type {array.dtype}, not real numbers")
    if not (array.ndim < 2 or array.flags.c_contiguous):
        raise Unreadable(f"{path} is not in C order: save it again with "
                         "numpy.save(path, numpy.ascontiguousarray(array))")
    parts = 1
    if array.ndim and array.size:
        whole = array.size // count if count and array.size % count == 0 else runs
        parts = whole if array.shape[0] % whole == 0 and array.size % whole == 0 else 1
    count = array.size // parts
    size = count * array.dtype.itemsize
    offset = getattr(array, "offset", 0)
    return [Values(path, count, size, offset + part * size, array.dtype) for part in range(parts)]


class Reader:
    """Reads values chunk by chunk into a buffer of its own, which the next chunk overwrites."""

    def __init__(self, chunk: int) -> None:
        self._chunk = chunk  # elements
        self._buffer = bytearray(chunk * 8)

    def chunks(self, values: Values) -> Iterator[np.ndarray]:
        """Arrays of the elements as they are in the file."""
        size = values.dtype.itemsize
        window = memoryview(self._buffer)
        try:
            with io.FileIO(values.path) as file:
                file.seek(values.offset)
                for at in range(0, values.count, self._chunk):
                    wanted = min(self._chunk, values.count - at) * size
                    got = _fill(file, window[:wanted])
                    if got < wanted:
                        raise Unreadable(f"{values.path} became shorter while it was read")
                    yield np.frombuffer(self._buffer, values.dtype, wanted // size)
        except OSError as error:
            raise Unreadable(f"cannot read {values.path}: {error.strerror}") from error

    def whole(self, values: Values) -> np.ndarray:
        """All values, decoded; for outputs that are known to be small."""
        parts = [decode(chunk, values).copy() for chunk in self.chunks(values)]
        return np.concatenate(parts) if parts else np.empty(0)


def _fill(file: io.FileIO, window: memoryview) -> int:
    """read() until the window is full or the file ends; returns the bytes read."""
    got = 0
    while got < len(window):
        count = file.readinto(window[got:])
        if not count:
            break
        got += count
    return got


def decode(chunk: np.ndarray, values: Values) -> np.ndarray:
    """The numbers that a chunk stands for, as 32-bit floats where these hold them."""
    if values.coded == INT32:
        return chunk.view("<i4").astype(np.float64)
    if values.coded == HALF:
        with np.errstate(invalid="ignore"):
            bits = chunk.astype(np.uint16)
        if not np.array_equal(bits, chunk):
            raise Unreadable(f"{values.path} does not hold half floats: give --type NAME=float")
        return bits.view(np.float16).astype(np.float32)
    if chunk.dtype in (np.float32, np.float64):
        return chunk
    return chunk.astype(np.float32 if chunk.dtype.itemsize <= 2 else np.float64)


def explain_sizes(values: Values, reference: Values, row: Optional[tuple[int, int]]) -> str:
    """Why two outputs cannot be compared: their sizes differ. `row` is the (last dimension,
    elements from row to row with padding) of the output, when known."""
    for one, name in ((values, "the output"), (reference, "the reference")):
        if one.cut_short or not one.count:
            return (f"{name} was cut short or the disk was full: {one.path} holds {one.bytes} "
                    "bytes; fetch it again")
    text = f"holds {values.count} values instead of {reference.count}"
    if row and reference.count * row[1] == values.count * row[0]:
        return f"{text}: the output has its row padding, the reference not"
    if row and values.count * row[1] == reference.count * row[0]:
        return f"{text}: the reference has its row padding, the output not"
    large, small = max(values.count, reference.count), min(values.count, reference.count)
    side = "" if values.count > reference.count else "the reference "
    if large % small:
        return f"{text}: outputs of different models or layouts"
    times = large // small
    if times in (2, 4):
        return (f"{text}: {side}holds {times} times as many bytes, as with another batch size (-b) "
                "or values of a type written byte by byte")
    return f"{text}: {side}holds {times} times as many, as with another batch size (-b)"
