"""Frames of recurrent models: what such a model writes beyond the frames that it was given is
undefined on a board, so it is left out where the inputs tell how many there were."""

import math
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.element_types import ELEMENT_TYPES
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.artifacts.run_outputs import RunOutputs, text
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import size_of_regular

Array = np.ndarray[Any, Any]


@dataclass(frozen=True)
class FrameCut:
    """How an output is cut down to the frames that counted."""
    dims: tuple[int, ...]
    axis: int  # of the frames
    frames: dict[int, int]  # by inference, where there were fewer than the output holds

    def shortens(self, run: int, count: int) -> bool:
        """Whether values of `count` elements hold frames that do not count."""
        return run in self.frames and count == math.prod(self.dims)

    def kept(self, run: int, values: Array) -> Array:
        """The values of the frames that counted."""
        blocks = values.reshape(math.prod(self.dims[:self.axis]), self.dims[self.axis], -1)
        return blocks[:, :self.frames[run]].reshape(-1)


def find_cuts(output: RunOutputs, axis: Optional[int]) -> dict[Key, FrameCut]:
    """The outputs that hold frames, with the frames that were given; `axis` is the user's word for
    the dimension. Raises Unreadable where the dimension is not plain."""
    if not output.log or len(output.log.data_inputs) < 2:  # a recurrent model has two at least
        return {}
    first = output.log.data_inputs[0]
    frames = {run: count for run in output.runs if (count := _frames_of(output, first, run))}
    if not frames:
        return {}
    cuts = {}
    for key in output.keys():
        tensor = output.tensor(key)
        found = _axis_of(tensor, first.dims[0], axis, key) if tensor else None
        if tensor and found is not None:
            cuts[key] = FrameCut(tensor.dims, found, frames)
    return cuts


def _axis_of(tensor: Tensor, most: int, axis: Optional[int], key: Key) -> Optional[int]:
    if axis is not None:
        if not -len(tensor.dims) <= axis < len(tensor.dims):
            raise Unreadable(f"--frames-axis: output {text(key)} has {len(tensor.dims)} dimensions")
        return axis % len(tensor.dims) if tensor.dims[axis] == most else None
    fitting = [at for at, dim in enumerate(tensor.dims) if dim == most]
    if len(fitting) > 1:
        raise Unreadable(f"several dimensions of output {text(key)}, {list(tensor.dims)}, may be "
                         f"the frames, of which fewer than {most} were given: name it with "
                         "--frames-axis")
    return fitting[0] if fitting else None


def _frames_of(output: RunOutputs, first: Tensor, run: int) -> int:
    """How many frames an inference was given; 0 where it was all, or nothing tells. Only a
    recurrent model runs on a file that is smaller than its first input."""
    size = _bytes_of(output, first, run)
    if size is None or first.type_code not in ELEMENT_TYPES or not first.dims:
        return 0
    frame = ELEMENT_TYPES[first.type_code].dtype.itemsize * math.prod(first.dims[1:])
    if frame <= 0 or size % frame or not 0 < size // frame < first.dims[0]:
        return 0
    return size // frame


def _bytes_of(output: RunOutputs, first: Tensor, run: int) -> Optional[int]:
    """The size of the file of the first input, by inputs.json or as it lies there."""
    for file in output.inputs.files_of(run) if output.inputs else []:
        if file.input == first.name:
            return file.bytes
    group = output.log.groups[run] if output.log and run < len(output.log.groups) else []
    if not group or not Path(group[0]).is_file():
        return None
    return size_of_regular(group[0])


def notes_of(cuts: dict[Key, FrameCut]) -> list[str]:
    """A line for every output that is cut."""
    return [f"{text(key)}: only the {_said(cut)} that the inputs had are compared; what lies "
            "beyond is undefined" for key, cut in cuts.items()]


def _said(cut: FrameCut) -> str:
    low, high = min(cut.frames.values()), max(cut.frames.values())
    return f"{low} frames" if low == high else f"{low} to {high} frames"
