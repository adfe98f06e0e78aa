"""Pictures as a model takes them: upright, in its size, colours, layout, range and type.

A sample of a channel has 256 values, so what each becomes is looked up in a table per channel.
"""

import io
import warnings
from dataclasses import dataclass
from typing import Any, Optional, Sequence

import numpy as np
from PIL import (BmpImagePlugin, Image, ImageOps, JpegImagePlugin, PngImagePlugin,
                 TiffImagePlugin, UnidentifiedImageError)

from quilmrun_tools.artifacts import element_types
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.inputs import camera_formats
from quilmrun_tools.inputs.picture_shapes import CHANNELS, Size, picture_shape
from quilmrun_tools.inputs.resizing import Colour, Geometry, Resizing

Array = np.ndarray[Any, Any]

SUFFIXES = (".png", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff")
_FORMATS = tuple(str(plugin.format) for plugin in (
    BmpImagePlugin.BmpImageFile, JpegImagePlugin.JpegImageFile, PngImagePlugin.PngImageFile,
    TiffImagePlugin.TiffImageFile))
_ORIENTATION = 0x0112  # of the EXIF data
_BYTES_OF_PIXEL = 4  # while a picture is converted; more for those of 16 bits

Image.MAX_IMAGE_PIXELS = None  # open_picture() has a limit of its own
# What Pillow says of odd metadata does not concern the user.
warnings.filterwarnings("ignore", module="PIL")


@dataclass(frozen=True)
class Options:
    """How pictures are prepared; see the help text."""
    size: str  # one of resizing.SIZES
    filter: str  # one of resizing.FILTERS
    color: str  # one of picture_shapes.COLORS; empty: by the number of channels
    layout: str  # one of picture_shapes.LAYOUTS; empty: by the shape
    picture: Size  # width and height; None: by the shape
    matrix: str  # one of camera_formats.MATRICES
    range: str  # one of camera_formats.RANGES
    mean: tuple[float, ...]
    scale: tuple[float, ...]
    std: tuple[float, ...]
    fill: tuple[int, ...]
    largest: int  # bytes that a decoded picture may take


@dataclass(frozen=True)
class DecodedPicture:
    """A decoded picture, upright, and the size that it has in its file."""
    image: Image.Image
    width: int
    height: int


class Preparation:
    """Turns pictures into elements of one input."""

    def __init__(self, tensor: Tensor, options: Options) -> None:
        self.dtype = element_types.dtype_of(tensor)
        self.shape = picture_shape(tensor, options.color, options.layout, options.picture)
        self.largest = options.largest
        self._resizing = Resizing(self.shape.width, self.shape.height, options.size, options.filter)
        self._conversion = camera_formats.Conversion(options.matrix, options.range)
        self._channels = CHANNELS.get(self.shape.color, 3)
        self._mode = {1: "L", 3: "RGB", 4: "RGBA"}[self._channels]
        self._reversed = self.shape.color in ("bgr", "bgra")
        self._fill = self._border(options.fill)
        exact = self._exact_values(options)
        # [channel][sample]: the element, and how the preview shows it
        self.table = np.stack([element_types.convert(row, self.dtype) for row in exact])
        self.saturated_values = element_types.saturated(exact, self.dtype)
        self._shown = _shown(self.table)

    def _border(self, fill: tuple[int, ...]) -> Colour:
        """The colour of a border in the order that Pillow takes; opaque where there is alpha."""
        first, *others = _per_channel(fill, min(self._channels, 3), "--fill")
        if not others:
            return int(first)
        red, green, blue = (first, *others)[::-1 if self._reversed else 1]
        return (red, green, blue, 255) if self._channels == 4 else (red, green, blue)

    def _exact_values(self, options: Options) -> Array:
        """[channel][sample]: sample * scale - mean, divided by std."""
        scale, mean, std = (np.array(_per_channel(values, self._channels, name))
                            for values, name in ((options.scale, "--scale"),
                                                 (options.mean, "--mean"), (options.std, "--std")))
        if not std.all():
            raise Unreadable("--std must not be 0")
        exact: Array = (np.arange(256.0) * scale[:, None] - mean[:, None]) / std[:, None]
        return exact

    def sized(self, picture: DecodedPicture) -> tuple[Array, Geometry]:
        """Height x width x channels of bytes as Pillow orders them, and where the picture lies."""
        image = _eight_bits(picture.image)
        if image.mode != self._mode:
            image = image.convert(self._mode)
        sized, geometry = self._resizing.apply(image, self._fill)
        scale = (geometry.scale[0] * image.width / picture.width,
                 geometry.scale[1] * image.height / picture.height)
        return np.asarray(sized).reshape(self.shape.height, self.shape.width, -1), \
            Geometry(scale, geometry.offset)

    def elements(self, pixels: Array) -> Array:
        """What the input file holds of one picture, in the model's layout."""
        return self._lay_out([row[plane] for row, plane in zip(self.table, self._planes(pixels))])

    def _planes(self, pixels: Array) -> Sequence[Array]:
        """The samples of each channel in the order of the model."""
        if self.shape.is_yuv:
            return self._conversion.samples(pixels, self.shape.step)
        order = [2, 1, 0, 3][:self._channels] if self._reversed else range(self._channels)
        return [pixels[:, :, at] for at in order]

    def _lay_out(self, planes: Sequence[Array]) -> Array:
        if not self.shape.layout:
            return camera_formats.pack(self.shape.color, *planes)
        return np.stack(planes, axis=0 if self.shape.layout == "nchw" else 2)

    def shown(self, pixels: Array) -> Image.Image:
        """What the model sees, in the colours that it takes it for."""
        return self._image(self._planes(pixels))

    def shown_frame(self, elements: Array) -> Optional[Image.Image]:
        """The same of elements as they are in the input file; None unless they are bytes."""
        if elements.dtype.itemsize > 1:
            return None
        samples = elements.astype(np.int16) - (-128 if elements.dtype.kind == "i" else 0)
        samples = samples.astype(np.uint8)
        width, height = self.shape.width, self.shape.height
        if not self.shape.layout:
            planes: Sequence[Array] = camera_formats.unpack(self.shape.color, samples, width,
                                                            height)
        elif self.shape.layout == "nchw":
            planes = [*samples.reshape(-1, height, width)]
        else:
            planes = [*np.moveaxis(samples.reshape(height, width, -1), 2, 0)]
        return self._image(planes, as_stored=True)

    def _image(self, planes: Sequence[Array], as_stored: bool = False) -> Image.Image:
        if self.shape.is_yuv:
            return Image.fromarray(self._conversion.pixels(planes[0], planes[1], planes[2]))
        if not as_stored:
            planes = [row[plane] for row, plane in zip(self._shown, planes)]
        if self._channels == 1:
            return Image.fromarray(np.ascontiguousarray(planes[0]))
        return Image.fromarray(np.stack(planes[2::-1] if self._reversed else planes[:3], 2))


def open_picture(content: bytes, largest: int) -> DecodedPicture:
    """Decodes a picture; raises Unreadable without the file's name. A JPEG that would take more
    than `largest` bytes is decoded at a half, quarter or eighth of its size."""
    try:
        image = Image.open(io.BytesIO(content), formats=_FORMATS)
        size = image.size
        if _bytes_of(size) > largest and image.format == "JPEG":
            image.draft(image.mode, _reduced(size, largest))
        if _bytes_of(image.size) > largest:
            raise Unreadable(f"{size[0]} x {size[1]} pixels take {_bytes_of(size) >> 20} MiB: "
                             "scale it down, or allow that with --largest MIB")
        reduced = image.size != size
        image.load()
        turned = _upright(image)
        if not reduced:
            return DecodedPicture(turned, *turned.size)
        return DecodedPicture(turned, *(size if turned.size == image.size else size[::-1]))
    except Unreadable:
        raise
    except UnidentifiedImageError:
        raise Unreadable("no picture in PNG, JPEG, BMP or TIFF") from None
    except Exception as error:  # the decoders raise errors of every kind  # pylint: disable=W0718
        raise Unreadable(f"damaged, cut short or too large: {error}") from error


def _bytes_of(size: tuple[int, int]) -> int:
    return size[0] * size[1] * _BYTES_OF_PIXEL


def _reduced(size: tuple[int, int], largest: int) -> tuple[int, int]:
    """A size for draft(), which takes the next larger one that the format can give."""
    factor = next((factor for factor in (2, 4) if _bytes_of(size) <= largest * factor ** 2), 8)
    return size[0] // factor, size[1] // factor


def _upright(image: Image.Image) -> Image.Image:
    """Turned as the EXIF data say; as it is where these are damaged, as viewers show it."""
    if image.format == "TIFF":  # Pillow turned it when it was decoded
        return image
    try:
        if image.getexif().get(_ORIENTATION, 1) == 1:
            return image  # instead of a copy
        return ImageOps.exif_transpose(image)
    except Exception:  # as with the decoders  # pylint: disable=W0718
        return image


def _per_channel(values: tuple[Any, ...], channels: int, option: str) -> tuple[Any, ...]:
    if len(values) not in (1, channels):
        raise Unreadable(f"{option} takes 1 or {channels} numbers here, not {len(values)}")
    return tuple(values) * (channels // len(values))


def _eight_bits(image: Image.Image) -> Image.Image:
    """Pictures of 16 bits per pixel, which Pillow would clip, by their upper 8 bits."""
    if image.mode == "F":
        raise Unreadable("its pixels are floating-point numbers of an unknown range: give it as an "
                         "array (.npy) of what the model takes")
    if not image.mode.startswith("I"):
        return image
    return Image.fromarray((np.clip(np.asarray(image), 0, 65535) >> 8).astype(np.uint8))


def _shown(table: Array) -> Array:
    """Bytes that show the elements: over the whole range of 8-bit types, otherwise over what the
    pictures can hold."""
    values = table.astype(np.float64)
    low, high = element_types.limits(table.dtype) if table.dtype.itemsize == 1 else \
        (values.min(), values.max())
    shown: Array = np.rint((values - low) * (255 / max(high - low, 1e-30))).astype(np.uint8)
    return shown
