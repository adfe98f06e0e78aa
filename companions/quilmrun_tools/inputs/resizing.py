"""Brings pictures to the size of an input, and says where they lie in it.

Scaling is Pillow's: a filter as wide as the scale demands, so that scaling down averages over all
pixels (antialiasing).
"""

from dataclasses import dataclass
from typing import Union

from PIL import Image

SIZES = ("fit", "crop", "stretch", "pad")
FILTERS = {"bilinear": Image.Resampling.BILINEAR, "bicubic": Image.Resampling.BICUBIC,
           "nearest": Image.Resampling.NEAREST, "area": Image.Resampling.BOX}

Colour = Union[int, tuple[int, int, int], tuple[int, int, int, int]]


@dataclass(frozen=True)
class Geometry:
    """Where a picture lies in an input: x_input = x * scale + offset, in pixels, and likewise y."""
    scale: tuple[float, float]
    offset: tuple[float, float]


@dataclass(frozen=True)
class Resizing:
    """How pictures come to the size of an input."""
    width: int
    height: int
    size: str  # one of SIZES
    filter: str  # one of FILTERS

    def apply(self, image: Image.Image, fill: Colour) -> tuple[Image.Image, Geometry]:
        """The picture in the input's size, with a border in the colour `fill` where it needs
        one."""
        if image.size == (self.width, self.height):
            return image, Geometry((1.0, 1.0), (0.0, 0.0))
        if self.size == "stretch":
            return self._scaled(image, (self.width, self.height)), \
                Geometry((self.width / image.width, self.height / image.height), (0.0, 0.0))
        if self.size == "crop":
            return self._cropped(image)
        fits = image.width <= self.width and image.height <= self.height
        inner = image.size if self.size == "pad" and fits else self._inner_size(image)
        return self._bordered(image, inner, fill)

    def _scaled(self, image: Image.Image, size: tuple[int, int]) -> Image.Image:
        return image if image.size == size else image.resize(size, FILTERS[self.filter])

    def _cropped(self, image: Image.Image) -> tuple[Image.Image, Geometry]:
        """The largest part from the middle that has the input's ratio."""
        ratio = self.width / self.height
        wide = image.width / image.height >= ratio
        part = (ratio * image.height, float(image.height)) if wide else \
            (float(image.width), image.width / ratio)
        left, top = (image.width - part[0]) * 0.5, (image.height - part[1]) * 0.5
        scale = self.width / part[0], self.height / part[1]
        box = left, top, left + part[0], top + part[1]
        cropped = image.resize((self.width, self.height), FILTERS[self.filter], box)
        return cropped, Geometry(scale, (-left * scale[0], -top * scale[1]))

    def _inner_size(self, image: Image.Image) -> tuple[int, int]:
        """The largest size with the picture's ratio that fits in."""
        if image.width / image.height > self.width / self.height:
            return self.width, max(round(image.height / image.width * self.width), 1)
        return max(round(image.width / image.height * self.height), 1), self.height

    def _bordered(self, image: Image.Image, inner: tuple[int, int], fill: Colour
                  ) -> tuple[Image.Image, Geometry]:
        whole = Image.new(image.mode, (self.width, self.height), fill)
        left, top = round((self.width - inner[0]) * 0.5), round((self.height - inner[1]) * 0.5)
        whole.paste(self._scaled(image, inner), (left, top))
        return whole, Geometry((inner[0] / image.width, inner[1] / image.height),
                               (float(left), float(top)))
