"""A contact sheet of what a model will see."""

import io
import math

from PIL import Image, ImageDraw, PngImagePlugin

LIMIT = 100  # pictures on a sheet
_CELL = 144  # pixels
_TEXT = 14  # pixels below a picture
MARKER = b"quilmrun-inputs"  # near the start of a sheet, for write_own()


def contact_sheet(shown: list[tuple[str, Image.Image]], title: str) -> bytes:
    """A PNG file with the named thumbnails in rows, and a line of text above them."""
    columns = min(10, max(math.ceil(math.sqrt(len(shown))), 3))
    rows = math.ceil(len(shown) / columns)
    sheet = Image.new("RGB", (columns * (_CELL + 4) + 4, rows * (_CELL + _TEXT + 4) + _TEXT + 8),
                      "white")
    draw = ImageDraw.Draw(sheet)
    draw.text((4, 4), _plain(title, sheet.width), "black")
    for index, (name, image) in enumerate(shown):
        left = index % columns * (_CELL + 4) + 4
        top = index // columns * (_CELL + _TEXT + 4) + _TEXT + 8
        sheet.paste(image, (left + (_CELL - image.width) // 2,
                            top + (_CELL - image.height) // 2))
        draw.text((left, top + _CELL), _plain(name, _CELL), "black")
    info = PngImagePlugin.PngInfo()
    info.add_text("Software", MARKER)
    content = io.BytesIO()
    sheet.save(content, "PNG", pnginfo=info)
    return content.getvalue()


def thumbnail(image: Image.Image) -> Image.Image:
    """A copy as large as a cell allows; enlarged pictures keep their pixels visible."""
    factor = min(_CELL / image.width, _CELL / image.height)
    size = max(round(image.width * factor), 1), max(round(image.height * factor), 1)
    return image.resize(size, Image.Resampling.NEAREST if factor > 1 else Image.Resampling.BILINEAR)


def _plain(text: str, width: int) -> str:
    """What the built-in font, of 6 pixels a letter, can show."""
    return text.encode("ascii", "replace").decode()[:width // 6]
