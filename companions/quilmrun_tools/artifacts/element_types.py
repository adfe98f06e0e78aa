"""Element types of inputs and outputs: the one table of them, and how values become elements."""

from dataclasses import dataclass
from typing import Any, Protocol

import numpy as np

from quilmrun_tools.common.errors import Unreadable

Array = np.ndarray[Any, Any]

FLOATS, HALF_BITS, INT32_BITS = "<f4", "half bits", "<i4"  # what Values.type may say of a .bin


@dataclass(frozen=True)
class ElementType:
    """A type that the runtime has a code for."""
    code: int
    name: str  # as users write it
    dtype: "np.dtype[Any]"  # of an input file's elements; little-endian
    stored_as: str  # what an output's .bin holds, as Values.type


# In a .bin every element takes 32 bits: those of a float for most types. Half floats stand there as
# the number that their 16 bits spell, and 32-bit integers as their own bits.
ELEMENT_TYPES = {code: ElementType(code, name, np.dtype(dtype), stored_as)
                 for code, name, dtype, stored_as in (
                     (0, "float", "<f4", FLOATS), (1, "half", "<f2", HALF_BITS),
                     (2, "int8", "<i1", FLOATS), (3, "int32", "<i4", INT32_BITS),
                     (4, "uint8", "<u1", FLOATS), (6, "int16", "<i2", FLOATS),
                     (7, "uint16", "<u2", FLOATS))}
# As users name what a .bin holds.
STORED_AS = {"float": FLOATS, "half": HALF_BITS, "int32": INT32_BITS}


def type_name(code: int) -> str:
    """As users write it: float, half, int8, ..."""
    return ELEMENT_TYPES[code].name if code in ELEMENT_TYPES else f"type {code}"


def stored_as(code: int) -> str:
    """What an output's .bin holds; types without a code in the table are written as floats."""
    return ELEMENT_TYPES[code].stored_as if code in ELEMENT_TYPES else FLOATS


class Typed(Protocol):
    """An input or output, as run_log.Tensor."""

    @property
    def name(self) -> str:
        """As the runtime names it."""

    @property
    def type_code(self) -> int:
        """The runtime's code of its elements."""


def dtype_of(tensor: Typed) -> "np.dtype[Any]":
    """The element type of an input; little-endian, as the files of quilmrun are."""
    if tensor.type_code not in ELEMENT_TYPES:
        known = ", ".join(f"{code} ({one.name})" for code, one in ELEMENT_TYPES.items())
        raise Unreadable(f"{tensor.name} has elements of type {tensor.type_code}, which is none "
                         f"of {known}")
    return ELEMENT_TYPES[tensor.type_code].dtype


def limits(dtype: "np.dtype[Any]") -> tuple[float, float]:
    """Smallest and largest finite value of an element type."""
    info: Any = np.finfo(dtype) if dtype.kind == "f" else np.iinfo(dtype)
    return info.min, info.max


def saturated(values: Array, dtype: "np.dtype[Any]") -> int:
    """How many values lie outside of an element type's range, after rounding."""
    low, high = limits(dtype)
    finite = np.isfinite(values)
    if dtype.kind != "f" and values.dtype.kind == "f":
        values = np.rint(values)
    return int(np.count_nonzero(finite & ((values < low) | (values > high))))


def convert(values: Array, dtype: "np.dtype[Any]") -> Array:
    """The nearest elements of a type: halves round to even, what is out of range becomes the
    smallest or largest finite value, and what is no number becomes 0 in an integer. Infinities stay
    what they are in floats."""
    if values.dtype == dtype:
        return values
    low, high = limits(dtype)
    if dtype.kind == "f":
        if dtype.itemsize < values.dtype.itemsize or values.dtype.kind != "f":
            values = np.where(np.isinf(values), values, np.clip(values, low, high))
        return values.astype(dtype)
    if values.dtype.kind == "f":
        rounded = np.rint(np.nan_to_num(values.astype(np.float64), nan=0.0))
        return np.clip(rounded, low, high).astype(dtype)
    own = np.iinfo(values.dtype) if values.dtype.kind in "iu" else np.iinfo(np.uint8)
    return np.clip(values.astype(own.dtype, copy=False), max(low, own.min),
                   min(high, own.max)).astype(dtype)
