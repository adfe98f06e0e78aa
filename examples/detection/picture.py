"""A small RGB picture with boxes and numbers that can be written as a PNG file."""

import struct
import zlib

GLYPH_WIDTH, GLYPH_HEIGHT = 3, 5
GLYPHS = {
    "0": "### #.# #.# #.# ###",
    "1": ".#. ##. .#. .#. ###",
    "2": "### ..# ### #.. ###",
    "3": "### ..# ### ..# ###",
    "4": "#.# #.# ### ..# ..#",
    "5": "### #.. ### ..# ###",
    "6": "### #.. ### #.# ###",
    "7": "### ..# ..# .#. .#.",
    "8": "### #.# ### #.# ###",
    "9": "### #.# ### ..# ###",
}
BLACK = (0, 0, 0)


class Picture:
    """An RGB picture, made by enlarging a grey one by a whole factor."""

    def __init__(self, grey, width, factor):
        """Takes the grey values (bytes, row by row) of a picture of the given width."""
        self.width = width * factor
        self.lines = []
        for start in range(0, len(grey), width):
            line = bytearray(v for v in grey[start : start + width] for _ in range(3 * factor))
            self.lines += [bytearray(line) for _ in range(factor)]

    def fill(self, left, top, right, bottom, colour):
        """Fills the pixels left <= x < right, top <= y < bottom as far as they exist."""
        left, right = max(left, 0), min(right, self.width)
        if left < right:
            for line in self.lines[max(top, 0) : max(bottom, 0)]:
                line[3 * left : 3 * right] = bytes(colour) * (right - left)

    def box(self, left, top, right, bottom, colour, thickness=2):
        """Draws the outline of a box, inside its borders."""
        self.fill(left, top, right, top + thickness, colour)
        self.fill(left, bottom - thickness, right, bottom, colour)
        self.fill(left, top, left + thickness, bottom, colour)
        self.fill(right - thickness, top, right, bottom, colour)

    def number(self, left, top, value, colour, dot=3):
        """Draws a number in black on a patch of the colour; a dot of a digit has dot pixels."""
        digits = str(value)
        width = (len(digits) * (GLYPH_WIDTH + 1) + 1) * dot
        self.fill(left, top, left + width, top + (GLYPH_HEIGHT + 2) * dot, colour)
        for place, digit in enumerate(digits):
            start = left + (place * (GLYPH_WIDTH + 1) + 1) * dot
            for row, dots in enumerate(GLYPHS[digit].split()):
                for column in range(GLYPH_WIDTH):
                    if dots[column] == "#":
                        x, y = start + column * dot, top + (row + 1) * dot
                        self.fill(x, y, x + dot, y + dot, BLACK)

    def png(self):
        """Returns the picture as the bytes of a PNG file."""
        header = struct.pack(">IIBBBBB", self.width, len(self.lines), 8, 2, 0, 0, 0)
        pixels = zlib.compress(b"".join(b"\0" + line for line in self.lines), 9)
        chunks = ((b"IHDR", header), (b"IDAT", pixels), (b"IEND", b""))
        return b"\x89PNG\r\n\x1a\n" + b"".join(png_chunk(*chunk) for chunk in chunks)


def png_chunk(kind, content):
    """Returns one chunk of a PNG file: length, kind, content and checksum."""
    checksum = zlib.crc32(kind + content)
    return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", checksum)
