"""Arrays of NumPy: what is in a file, and how it divides into batches of an input."""

import functools
import math
import os
import zipfile
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import open_regular, size_of_regular

Array = np.ndarray[Any, Any]

SUFFIXES = (".npy", ".npz")


@dataclass(frozen=True)
class ArraySource:
    """An array in a file; only its header was read."""
    path: Path
    member: str  # of an .npz, otherwise empty
    shape: tuple[int, ...]
    dtype: "np.dtype[Any]"

    def read(self) -> Array:
        """All of it, mapped into memory where the file allows."""
        return _read(self.path, self.member)


def arrays_in(path: Path, largest: int) -> list[ArraySource]:
    """All arrays of a file. Those of an .npz, which cannot be read in parts, take at most `largest`
    bytes of memory each."""
    size_of_regular(path)
    if path.suffix.lower() == ".npy":
        array = _read(path, "")
        found = [ArraySource(path, "", array.shape, array.dtype)]
    else:
        found = _members(path)
    for one in found:
        if one.dtype.kind not in "fiub":
            raise Unreadable(f"{path} holds elements of the type {one.dtype}, not numbers")
        size = math.prod(one.shape) * one.dtype.itemsize
        if one.member and size > largest:
            raise Unreadable(f"{path}[{one.member}] takes {size >> 20} MiB of memory: save it as "
                             ".npy, or allow that with --largest MIB")
    return found


def _members(path: Path) -> list[ArraySource]:
    """The arrays of an .npz by their headers, so that nothing large is unpacked here."""
    found = []
    try:
        with open_regular(path) as file, zipfile.ZipFile(file) as archive:
            for name in archive.namelist():
                with archive.open(name) as member:
                    formats: Any = np.lib.format  # which has no type hints
                    read = {(1, 0): formats.read_array_header_1_0,
                            (2, 0): formats.read_array_header_2_0}[formats.read_magic(member)]
                    shape, _, dtype = read(member)
                found.append(ArraySource(path, name.removesuffix(".npy"), shape, dtype))
    except Unreadable:
        raise
    except Exception as error:  # zip and NumPy raise errors of many kinds  # pylint: disable=W0718
        raise Unreadable(f"{path} is no archive of arrays, or was cut short: save it again with "
                         "numpy.savez") from error
    return found


@functools.lru_cache(maxsize=2)  # the rows of an .npz come one after another
def _read(path: Path, member: str) -> Array:
    try:
        if member:
            with np.load(path, allow_pickle=False) as archive:
                array: Array = archive[member]
                return array
        mapped: Array = np.load(path, mmap_mode="r", allow_pickle=False)
        return mapped
    except OSError as error:
        raise Unreadable(f"cannot read {path}: {os.strerror(error.errno or 0)}"
                         if error.errno else f"{path} is no array of numbers") from error
    except Exception as error:  # as above  # pylint: disable=W0718
        raise Unreadable(f"{path} is no array of numbers, or was cut short: save it again with "
                         "numpy.save") from error


def batches(array: ArraySource, tensor: Tensor) -> list[Optional[slice]]:
    """How an array divides into batches of an input, None being all of it; dimensions of 1 do not
    matter.

    Where an input's first dimension is more than 1, as that of frames, the last batch may be
    shorter.
    """
    def bare(dims: tuple[int, ...]) -> list[int]:
        return [dim for dim in dims if dim != 1]

    shape = array.shape
    if bare(shape) == bare(tensor.dims):
        return [None]
    if shape and bare(shape[1:]) == bare(tensor.dims[1:]):
        step = tensor.dims[0] if len(shape) == len(tensor.dims) else 1
    elif shape and bare(shape[1:]) == bare(tensor.dims):
        step = 1
    else:
        raise Unreadable(f"{array.path} holds {list(shape)}, but {tensor.name} takes "
                         f"{list(tensor.dims)}: transpose or cut the array, or give one for each "
                         "inference")
    return [slice(at, at + step) for at in range(0, shape[0], step)]
