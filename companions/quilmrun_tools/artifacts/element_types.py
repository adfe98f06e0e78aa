"""Element types of inputs and outputs, and how values become elements of them."""

import numpy as np

from quilmrun_tools.artifacts.run_log import TYPES, Tensor
from quilmrun_tools.common.errors import Unreadable


def dtype_of(tensor: Tensor) -> np.dtype:
    """The element type of an input; little-endian, as the files of quilmrun are."""
    if tensor.type_code not in TYPES:
        raise Unreadable(f"{tensor.name} has elements of type {tensor.type_code}, which is none "
                         f"of {', '.join(f'{code} ({name})' for code, (_, name) in TYPES.items())}")
    return np.dtype(TYPES[tensor.type_code][0])


def limits(dtype: np.dtype) -> tuple[float, float]:
    """Smallest and largest finite value of an element type."""
    info = np.finfo(dtype) if dtype.kind == "f" else np.iinfo(dtype)
    return info.min, info.max


def saturated(values: np.ndarray, dtype: np.dtype) -> int:
    """How many values lie outside of an element type's range."""
    low, high = limits(dtype)
    finite = np.isfinite(values)
    return int(np.count_nonzero(finite & ((values < low) | (values > high))))


def convert(values: np.ndarray, dtype: np.dtype) -> np.ndarray:
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
