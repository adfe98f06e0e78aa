"""Pictures for the report, scaled down and embedded as data URIs."""

from __future__ import annotations

import base64
import io
from pathlib import Path

from PIL import Image, ImageOps

SIZE = 320  # pixels of the longer side, for 160 on a screen with two pixels to a point
SUFFIXES = {".png", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff", ".webp", ".gif", ".ppm", ".pgm"}


def is_picture(path: str) -> bool:
    """Whether a file's name is that of a picture."""
    return Path(path).suffix.lower() in SUFFIXES


def thumbnail(path: str, near: Path | None = None) -> str:
    """A picture as a data URI; empty when it is not there or cannot be read.

    A relative path that leads nowhere is tried from the folder `near` too.
    """
    for candidate in [Path(path), *([near / path, near / Path(path).name] if near else [])]:
        try:
            with Image.open(candidate) as picture:
                return _data_uri(picture)
        except (OSError, ValueError, SyntaxError, Image.DecompressionBombError):
            continue
    return ""


def _data_uri(picture: Image.Image) -> str:
    if picture.mode.startswith(("I", "F")):  # more than 8 bits: the brightest pixel becomes white
        wide = picture.convert("F")
        scale = 255 / (wide.getextrema()[1] or 1)
        picture = wide.point(lambda value: value * scale + 0).convert("L")
    picture.draft("RGB", (SIZE, SIZE))
    upright = ImageOps.exif_transpose(picture)
    transparent = "A" in upright.getbands() or "transparency" in upright.info
    small = upright.convert("RGBA" if transparent else "RGB")
    small.thumbnail((SIZE, SIZE))
    memory = io.BytesIO()
    if transparent:
        small.save(memory, "PNG", optimize=True)
    else:
        small.save(memory, "JPEG", quality=82)
    kind = "png" if transparent else "jpeg"
    return f"data:image/{kind};base64,{base64.b64encode(memory.getvalue()).decode()}"
