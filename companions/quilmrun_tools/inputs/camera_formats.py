"""Pictures in the formats of cameras and video decoders: luma and chroma instead of red, green and
blue, with fewer samples of chroma.

Samples are as ITU-R BT.601 or BT.709 define them for 8 bits: in the limited range luma is 16 to 235
and chroma 16 to 240, in the full range both take all values.
"""

import math
from dataclasses import dataclass
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable

Array = np.ndarray[Any, Any]

# Weights of red and blue in luma.
MATRICES = {"bt601": (0.299, 0.114), "bt709": (0.2126, 0.0722)}
RANGES = ("limited", "full")


@dataclass(frozen=True)
class Layout:
    """How a format puts the samples of a picture into bytes."""
    bytes_per_pixel: tuple[int, int]  # as a fraction
    step: tuple[int, int]  # columns and rows of pixels that share chroma

    def bytes_of(self, width: int, height: int) -> int:
        """Those of a whole picture."""
        return width * height * self.bytes_per_pixel[0] // self.bytes_per_pixel[1]


FORMATS = {"nv12": Layout((3, 2), (2, 2)), "nv21": Layout((3, 2), (2, 2)),
           "i420": Layout((3, 2), (2, 2)), "yuyv": Layout((2, 1), (2, 1))}


@dataclass(frozen=True)
class Frames:
    """The pictures that an input takes in one of FORMATS."""
    format: str
    count: int
    width: int
    height: int


def frames_of(tensor: Tensor, name: str, size: Optional[tuple[int, int]]) -> Frames:
    """Reads an input's dimensions as those of frames; `size` is what the user says of them."""
    width, height = size or _size_of(tensor, name)
    layout = FORMATS[name]
    if width % layout.step[0] or height % layout.step[1]:
        raise Unreadable(f"{name} has no pictures of {width} x {height}: " + (
            "both sides" if layout.step[1] > 1 else "the width") + " must be even")
    each = layout.bytes_of(width, height)
    if tensor.elements % each:
        raise Unreadable(f"{tensor.name} takes {list(tensor.dims)}, {tensor.elements} elements, "
                         f"which are no pictures of {width} x {height} in {name} with {each} each")
    return Frames(name, tensor.elements // each, width, height)


def _size_of(tensor: Tensor, name: str) -> tuple[int, int]:
    """Width and height by the dimensions, as in 1 x 1 x 72 x 48 for 48 x 48 in 4:2:0."""
    sides = [dim for dim in tensor.dims[-3:] if dim > 1]
    if FORMATS[name].step == (2, 2) and len(sides) == 2 and sides[0] % 3 == 0:
        return sides[1], sides[0] // 3 * 2
    packed = tensor.dims[-3:]
    if name == "yuyv" and len(packed) == 3 and packed[2] == 2 and min(packed) > 1:
        return packed[1], packed[0]
    if name == "yuyv" and len(sides) == 2 and sides[1] % 2 == 0:
        return sides[1] // 2, sides[0]
    raise Unreadable(f"{tensor.name} takes {list(tensor.dims)}, which do not tell the size of a "
                     f"picture in {name}: give --picture WIDTHxHEIGHT")


def guess_420(tensor: Tensor) -> str:
    """A hint for an input whose shape could be that of 4:2:0, which is never taken for granted."""
    sides = [dim for dim in tensor.dims[-3:] if dim > 1]
    if len(sides) != 2 or sides[0] % 3 or sides[1] % 2 or \
            math.prod(tensor.dims[-3:]) != sides[0] * sides[1]:
        return ""
    return (f"{list(tensor.dims)} could be NV12 of {sides[1]} x {sides[0] // 3 * 2}: give --color "
            "nv12 (or nv21, i420) if it is")


class Conversion:
    """Between bytes of red, green and blue and samples of luma and chroma."""

    def __init__(self, matrix: str, sample_range: str) -> None:
        red, blue = MATRICES[matrix]
        luma = np.array([red, 1 - red - blue, blue])
        rows = np.stack([luma, (np.array([0, 0, 1]) - luma) / (2 * (1 - blue)),
                         (np.array([1, 0, 0]) - luma) / (2 * (1 - red))])
        limited = sample_range == "limited"
        span = np.array([219, 224, 224]) / 255 if limited else np.ones(3)
        self._weights = (rows * span[:, None]).astype(np.float32)
        self._zero = np.array([16 if limited else 0, 128, 128], np.float32)
        self._back = np.linalg.inv(rows * span[:, None]).astype(np.float32)

    def samples(self, pixels: Array, step: tuple[int, int] = (1, 1)
                ) -> tuple[Array, Array, Array]:
        """Luma, blue and red chroma of height x width x 3 bytes; chroma is that of the mean colour
        of each `step` of columns and rows."""
        exact = pixels.astype(np.float32)
        columns, rows = step
        height, width = pixels.shape[:2]
        mean = exact.reshape(height // rows, rows, width // columns, columns, 3).mean(axis=(1, 3))
        luma = exact @ self._weights[0]
        blue, red = (mean @ self._weights[at] for at in (1, 2))
        return self._bytes(luma, 0), self._bytes(blue, 1), self._bytes(red, 2)

    def _bytes(self, exact: Array, channel: int) -> Array:
        samples: Array = np.clip(np.rint(exact + self._zero[channel]), 0, 255).astype(np.uint8)
        return samples

    def pixels(self, luma: Array, blue: Array, red: Array) -> Array:
        """Height x width x 3 bytes of red, green and blue; chroma of fewer samples is repeated."""
        planes = [plane.repeat(luma.shape[0] // plane.shape[0], 0)
                  .repeat(luma.shape[1] // plane.shape[1], 1) for plane in (luma, blue, red)]
        samples = np.stack(planes, 2).astype(np.float32) - self._zero
        pixels: Array = np.clip(np.rint(samples @ self._back.T), 0, 255).astype(np.uint8)
        return pixels


def pack(name: str, luma: Array, blue: Array, red: Array) -> Array:
    """The samples of a picture in the order of a format, as a flat array."""
    if name == "yuyv":
        parts = [np.stack([luma[:, ::2], blue, luma[:, 1::2], red], 2)]
    elif name == "i420":
        parts = [luma, blue, red]
    else:
        parts = [luma, np.stack((blue, red) if name == "nv12" else (red, blue), 2)]
    return np.concatenate([part.reshape(-1) for part in parts])


def unpack(name: str, samples: Array, width: int, height: int
           ) -> tuple[Array, Array, Array]:
    """Luma, blue and red chroma of a flat array, as pack() makes it."""
    if name == "yuyv":
        pairs = samples.reshape(height, width // 2, 4)
        return pairs[:, :, ::2].reshape(height, width), pairs[:, :, 1], pairs[:, :, 3]
    luma, rest = samples[:width * height].reshape(height, width), samples[width * height:]
    if name == "i420":
        blue, red = rest.reshape(2, height // 2, width // 2)
        return luma, blue, red
    chroma = rest.reshape(height // 2, width // 2, 2)
    first, second = chroma[:, :, 0], chroma[:, :, 1]
    return (luma, first, second) if name == "nv12" else (luma, second, first)
