"""Why two outputs cannot be compared: their sizes differ."""

from typing import Optional

from quilmrun_tools.artifacts.element_types import ELEMENT_TYPES
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.artifacts.values import Values


def explain_sizes(values: Values, reference: Values, tensor: Optional[Tensor]) -> str:
    """A reason for people; empty when the sizes are the same, and not 0. `tensor` describes the
    output, when known."""
    for one, name in ((values, "the output"), (reference, "the reference")):
        if one.cut_short or not one.count:
            return (f"{name} was cut short or the disk was full: {one.path} holds {one.bytes} "
                    "bytes; fetch it again")
    if values.count == reference.count:
        return ""
    said = f"holds {values.count} values instead of {reference.count}"
    row = _row_of(tensor)
    for counts, padded in (((values.count, reference.count), "the output has its row padding, the "
                            "reference not"),
                           ((reference.count, values.count), "the reference has its row padding, "
                            "the output not")):
        if row and counts[1] * row[1] == counts[0] * row[0]:
            return f"{said}: {padded}"
    return f"{said}: {_multiple(values, reference)}"


def _multiple(values: Values, reference: Values) -> str:
    """How many times one side is as large as the other."""
    large, small = max(values.count, reference.count), min(values.count, reference.count)
    if large % small:
        return "outputs of different models or layouts"
    side = "" if values.count > reference.count else "the reference "
    times = large // small
    if times in (2, 4):
        return (f"{side}holds {times} times as many bytes, as with another batch size (-b) or "
                "values of a type written byte by byte")
    return f"{side}holds {times} times as many, as with another batch size (-b)"


def _row_of(tensor: Optional[Tensor]) -> Optional[tuple[int, int]]:
    """(last dimension, elements from row to row with padding) of an output."""
    if tensor is None or not tensor.dims or tensor.type_code not in ELEMENT_TYPES:
        return None
    return tensor.dims[-1], tensor.stride // ELEMENT_TYPES[tensor.type_code].dtype.itemsize
