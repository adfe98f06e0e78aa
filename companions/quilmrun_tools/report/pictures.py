"""Pictures for the report, scaled down and embedded as data URIs."""

from __future__ import annotations

import base64
import hashlib
import io
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from PIL import Image, ImageOps

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import read_regular

SIZE = 320  # pixels of the longer side, for 160 on a screen with two pixels to a point
# Those that quilmrun-inputs reads. The library knows many more, and starts other programs for some.
FORMATS = ("PNG", "JPEG", "BMP", "TIFF")
SUFFIXES = {".png", ".jpg", ".jpeg", ".bmp", ".tif", ".tiff"}
LARGEST_FILE = 1 << 27  # bytes
LARGEST_PICTURE = 1 << 26  # pixels; a small file may hold very many


@dataclass(frozen=True)
class Thumbnail:
    """A picture as a data URI, or why there is none."""

    image: str = ""
    remark: str = ""


def thumbnail(path: str, near: Path | None = None, sha256: str = "") -> Thumbnail:
    """A picture, scaled down. With a checksum, no other picture is shown in its place.

    A relative path that leads nowhere is tried from the folder `near` too.
    """
    if Path(path).suffix.lower() not in SUFFIXES:
        return Thumbnail(remark="not a picture")
    for candidate in [Path(path), *([near / path, near / Path(path).name] if near else [])]:
        try:
            content = read_regular(candidate, largest=LARGEST_FILE)
        except Unreadable:
            continue
        if sha256 and hashlib.sha256(content).hexdigest() != sha256:
            return Thumbnail(remark="the picture has changed since the run")
        return _scaled(content)
    return Thumbnail(remark="the picture is not on this machine")


def _scaled(content: bytes) -> Thumbnail:
    try:
        with Image.open(io.BytesIO(content), formats=FORMATS) as picture:
            picture.draft("RGB", (2 * SIZE, 2 * SIZE))  # JPEG is decoded at a fraction of its size
            if picture.width * picture.height > LARGEST_PICTURE:
                return Thumbnail(remark=f"too large: {picture.width} x {picture.height} pixels")
            return Thumbnail(_data_uri(picture))
    except Exception:  # the decoders raise errors of every kind  # pylint: disable=broad-except
        return Thumbnail(remark="the picture cannot be read")


def _data_uri(picture: Image.Image) -> str:
    if picture.mode.startswith(("I", "F")):  # more than 8 bits: the brightest pixel becomes white
        wide = picture.convert("F")
        scale = 255 / (float(np.asarray(wide).max()) or 1)
        picture = wide.point(lambda value: value * scale + 0).convert("L")
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
