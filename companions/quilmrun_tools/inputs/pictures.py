"""Pictures as a model takes them: upright, in its size, colours, layout, range and type.

A pixel's channel has 256 values, so what each becomes is looked up in a table per channel.
"""

import io
import warnings
from dataclasses import dataclass
from typing import Optional

import numpy as np
from PIL import (BmpImagePlugin, Image, ImageOps, JpegImagePlugin, PngImagePlugin,
                 TiffImagePlugin)

from quilmrun_tools.artifacts import element_types
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable

SUFFIXES = (".png", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff")
_FORMATS = tuple(plugin.format for plugin in (
    BmpImagePlugin.BmpImageFile, JpegImagePlugin.JpegImageFile, PngImagePlugin.PngImageFile,
    TiffImagePlugin.TiffImageFile))
SIZES = ("fit", "crop", "stretch", "pad")
COLORS = {"rgb": 3, "bgr": 3, "gray": 1}

Image.MAX_IMAGE_PIXELS = 1 << 28  # twice as many are refused
# What Pillow says of odd metadata and of very large pictures does not concern the user.
warnings.filterwarnings("ignore", module="PIL")


@dataclass(frozen=True)
class Options:
    """How pictures are prepared; see the help text."""
    size: str = "crop"
    color: str = ""  # by the number of channels
    layout: str = ""  # by the shape
    mean: tuple[float, ...] = (0.0,)
    scale: tuple[float, ...] = (1.0,)
    std: tuple[float, ...] = (1.0,)
    fill: tuple[int, ...] = (0,)


@dataclass(frozen=True)
class Shape:
    """The pictures that an input takes: `count` of height x width x channels."""
    count: int
    channels: int
    height: int
    width: int
    layout: str


class Preparation:
    """Turns pictures into elements of one input."""

    def __init__(self, tensor: Tensor, options: Options) -> None:
        self.dtype = element_types.dtype_of(tensor)
        self.shape = picture_shape(tensor, options)
        self.color = options.color or ("gray" if self.shape.channels == 1 else "rgb")
        self._size = options.size
        fill = _per_channel(options.fill, COLORS[self.color], "--fill")
        self._fill = fill[::-1] if self.color == "bgr" else fill  # as Pillow takes it
        exact = self._exact_values(options)
        # [channel][pixel value]: the element, and how the preview shows it
        self.table = np.stack([element_types.convert(row, self.dtype) for row in exact])
        self.saturated_values = element_types.saturated(exact, self.dtype)
        self._shown = _shown(self.table)

    def _exact_values(self, options: Options) -> np.ndarray:
        """[channel][pixel value]: pixel * scale - mean, divided by std."""
        scale, mean, std = (np.array(_per_channel(values, self.shape.channels, name))
                            for values, name in ((options.scale, "--scale"),
                                                 (options.mean, "--mean"), (options.std, "--std")))
        if not std.all():
            raise Unreadable("--std must not be 0")
        return (np.arange(256.0) * scale[:, None] - mean[:, None]) / std[:, None]

    def pixels(self, image: Image.Image) -> np.ndarray:
        """Height x width x channels of bytes, channels in the order that the model takes."""
        image = _eight_bits(_upright(image)).convert("L" if self.color == "gray" else "RGB")
        image = self._sized(image)
        pixels = np.asarray(image).reshape(self.shape.height, self.shape.width, -1)
        return pixels[:, :, ::-1] if self.color == "bgr" else pixels

    def _sized(self, image: Image.Image) -> Image.Image:
        size = self.shape.width, self.shape.height
        if image.size == size:
            return image
        if self._size == "stretch":
            return image.resize(size, Image.Resampling.BILINEAR)
        if self._size == "crop":
            return ImageOps.fit(image, size, Image.Resampling.BILINEAR)
        fill = self._fill[0] if self.color == "gray" else self._fill
        if self._size == "pad" and image.width <= size[0] and image.height <= size[1]:
            whole = Image.new(image.mode, size, fill)
            whole.paste(image, ((size[0] - image.width) // 2, (size[1] - image.height) // 2))
            return whole
        return ImageOps.pad(image, size, Image.Resampling.BILINEAR, fill)

    def elements(self, pixels: np.ndarray) -> np.ndarray:
        """What the input file holds of one picture, in the model's layout."""
        return _lay_out(self.table, pixels, self.shape.layout)

    def shown(self, pixels: np.ndarray) -> Image.Image:
        """What the model sees, in the colours that it takes it for."""
        seen = _lay_out(self._shown, pixels, "nhwc")
        return Image.fromarray(seen[:, :, 0] if seen.shape[2] == 1 else
                               seen[:, :, ::-1] if self.color == "bgr" else seen)


def open_picture(content: bytes) -> Image.Image:
    """A decoded picture; raises Unreadable without the file's name."""
    try:
        image = Image.open(io.BytesIO(content), formats=_FORMATS)
        image.load()
        return image
    except Image.UnidentifiedImageError:
        raise Unreadable("no picture in PNG, JPEG, BMP or TIFF") from None
    except Exception as error:  # the decoders raise errors of every kind  # pylint: disable=W0718
        raise Unreadable(f"damaged, cut short or too large: {error}") from error


def picture_shape(tensor: Tensor, options: Options) -> Shape:
    """Reads an input's dimensions as those of pictures."""
    channels = (COLORS[options.color],) if options.color else (1, 3)
    shapes = [shape for layout in ((options.layout,) if options.layout else ("nchw", "nhwc"))
              for shape in [_shape(tensor.dims, layout)] if shape and shape.channels in channels]
    if not shapes:
        wanted = " or ".join(map(str, channels))
        raise Unreadable(
            f"{tensor.name} takes {list(tensor.dims)}, which are no pictures of {wanted} channels"
            + (f" in {options.layout}" if options.layout else "")
            + ": change --color or --layout, or give it arrays (.npy)")
    return shapes[0]


def _shape(dims: tuple[int, ...], layout: str) -> Optional[Shape]:
    if len(dims) == 2:
        return Shape(1, 1, *dims, layout)
    if len(dims) not in (3, 4):
        return None
    count, *picture = dims if len(dims) == 4 else (1, *dims)
    channels, height, width = picture if layout == "nchw" else (picture[2], *picture[:2])
    return Shape(count, channels, height, width, layout)


def _per_channel(values: tuple, channels: int, option: str) -> tuple:
    if len(values) not in (1, channels):
        raise Unreadable(f"{option} takes 1 or {channels} numbers here, not {len(values)}")
    return tuple(values) * (channels // len(values))


def _upright(image: Image.Image) -> Image.Image:
    """Turned as the EXIF data say; as it is where these are damaged, as viewers show it."""
    if image.format == "TIFF":  # Pillow turned it when it was decoded
        return image
    try:
        return ImageOps.exif_transpose(image)
    except Exception:  # as with the decoders  # pylint: disable=W0718
        return image


def _eight_bits(image: Image.Image) -> Image.Image:
    """Pictures of 16 bits per pixel, which Pillow would clip, by their upper 8 bits."""
    if image.mode == "F":
        raise Unreadable("its pixels are floating-point numbers of an unknown range: give it as an "
                         "array (.npy) of what the model takes")
    if not image.mode.startswith("I"):
        return image
    return Image.fromarray((np.clip(np.asarray(image), 0, 65535) >> 8).astype(np.uint8))


def _lay_out(table: np.ndarray, pixels: np.ndarray, layout: str) -> np.ndarray:
    planes = [row[pixels[:, :, channel]] for channel, row in enumerate(table)]
    return np.stack(planes, axis=0 if layout == "nchw" else 2)


def _shown(table: np.ndarray) -> np.ndarray:
    """Bytes that show the elements: over the whole range of 8-bit types, otherwise over what the
    pictures can hold."""
    values = table.astype(np.float64)
    low, high = element_types.limits(table.dtype) if table.dtype.itemsize == 1 else \
        (values.min(), values.max())
    return np.rint((values - low) * (255 / max(high - low, 1e-30))).astype(np.uint8)
