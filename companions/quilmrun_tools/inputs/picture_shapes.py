"""Reads the dimensions of an input as those of pictures."""

from dataclasses import dataclass
from typing import Optional

from quilmrun_tools.artifacts import element_types
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.inputs import camera_formats

# Channels of the formats that have as many samples of each.
CHANNELS = {"rgb": 3, "bgr": 3, "gray": 1, "rgba": 4, "bgra": 4, "yuv444": 3}
COLORS = (*CHANNELS, *camera_formats.FORMATS)
LAYOUTS = ("nchw", "nhwc")
_LARGEST_RATIO = 32  # of a picture's sides; what is longer is more likely a list of numbers

Size = Optional[tuple[int, int]]


@dataclass(frozen=True)
class Shape:
    """The pictures that an input takes."""
    color: str  # one of COLORS
    layout: str  # one of LAYOUTS, or "" in a camera's format, which is a layout too
    count: int
    width: int
    height: int

    @property
    def step(self) -> tuple[int, int]:
        """Columns and rows of pixels that share chroma."""
        camera = camera_formats.FORMATS.get(self.color)
        return camera.step if camera else (1, 1)

    @property
    def is_yuv(self) -> bool:
        """Whether its samples are luma and chroma."""
        return self.color == "yuv444" or self.color in camera_formats.FORMATS

    def __str__(self) -> str:
        return f"{self.color} {self.layout}".rstrip()


def picture_shape(tensor: Tensor, color: str, layout: str, size: Size) -> Shape:
    """The pictures of an input by its dimensions and by what the user says: "" and None where the
    user says nothing. Raises Unreadable when it takes none, or when this is doubtful."""
    if color in camera_formats.FORMATS:
        frames = camera_formats.frames_of(tensor, color, size)
        return Shape(color, "", frames.count, frames.width, frames.height)
    if size:
        return _of_size(tensor, color, layout, size)
    shapes = [shape for one in ((layout,) if layout else LAYOUTS)
              for shape in _shapes(tensor.dims, one, color)]
    if not shapes:
        raise _no_pictures(tensor, color, layout)
    if not layout:
        _check_plausible(tensor, shapes[0])
    return shapes[0]


def _shapes(dims: tuple[int, ...], layout: str, color: str) -> list[Shape]:
    if len(dims) not in (2, 3, 4):
        return []
    count, *picture = dims if len(dims) == 4 else (1, *dims)
    if len(dims) == 2:
        picture = [1, *dims] if layout == "nchw" else [*dims, 1]
    channels, height, width = picture if layout == "nchw" else (picture[2], *picture[:2])
    colors = (color,) if color else ("gray", "rgb")
    return [Shape(one, layout, count, width, height) for one in colors if CHANNELS[one] == channels]


def _of_size(tensor: Tensor, color: str, layout: str, size: tuple[int, int]) -> Shape:
    """Pictures of a size that the user gives, in flat or any other dimensions."""
    if not color:
        raise Unreadable("--picture needs --color too")
    each = CHANNELS[color] * size[0] * size[1]
    if tensor.elements % each:
        raise Unreadable(f"{tensor.name} takes {list(tensor.dims)}, {tensor.elements} elements, "
                         f"which are no pictures of {size[0]} x {size[1]} in {color} with {each} "
                         "each")
    planar = color == "yuv444" or tensor.dims[-2:] == (size[1], size[0])
    return Shape(color, layout or ("nchw" if planar else "nhwc"), tensor.elements // each, *size)


def _check_plausible(tensor: Tensor, shape: Shape) -> None:
    dtype = element_types.dtype_of(tensor)
    sides = sorted((shape.width, shape.height))
    reason = (f"of {tensor.type_name}" if dtype.kind != "f" and dtype.itemsize > 1 else
              f"of {shape.width} x {shape.height} pixels" if sides[0] < 2
              or sides[1] > _LARGEST_RATIO * sides[0] else "")
    if reason:
        raise Unreadable(f"{tensor.name} takes {list(tensor.dims)} {tensor.type_name}, and "
                         f"pictures {reason} are unusual: give it arrays (.npy), or say with "
                         "--layout that these are pictures")


def _no_pictures(tensor: Tensor, color: str, layout: str) -> Unreadable:
    wanted = str(CHANNELS[color]) if color else "1 or 3"
    hint = camera_formats.guess_420(tensor) if not color or color == "gray" else ""
    return Unreadable(
        f"{tensor.name} takes {list(tensor.dims)}, which are no pictures of {wanted} channels"
        + (f" in {layout}" if layout else "")
        + ": change --color or --layout, or give it arrays (.npy)" + (f"; {hint}" if hint else ""))
