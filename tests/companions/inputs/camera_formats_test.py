"""Formats of cameras against the standard's formulas, sample by sample, and frames taken as they
are."""

import json
import unittest

import numpy as np
from PIL import Image
from prepared import FLOAT, INT8, RED, UINT8, InputsTest

WEIGHTS = {"bt601": (0.299, 0.587, 0.114), "bt709": (0.2126, 0.7152, 0.0722)}


def sample(pixels, matrix, full, channel):
    """Luma (0), blue (1) or red chroma (2) of the mean of some pixels, as the standard has it."""
    red, green, blue = (sum(pixel[at] for pixel in pixels) / len(pixels) / 255 for at in range(3))
    weight = WEIGHTS[matrix]
    luma = weight[0] * red + weight[1] * green + weight[2] * blue
    if channel == 0:
        return 255 * luma if full else 16 + 219 * luma
    colour, own = (blue, weight[2]) if channel == 1 else (red, weight[0])
    return 128 + (255 if full else 224) * (colour - luma) / (2 * (1 - own))


def frame(name, picture, matrix, full):
    """All samples of a picture in the order of a format."""
    height, width = len(picture), len(picture[0])

    def at(channel, x, y, columns, rows):
        return sample([picture[y + dy][x + dx] for dy in range(rows) for dx in range(columns)],
                      matrix, full, channel)
    luma = [at(0, x, y, 1, 1) for y in range(height) for x in range(width)]
    if name == "yuyv":
        return [at(*which, y, *size) for y in range(height) for x in range(0, width, 2)
                for which, size in (((0, x), (1, 1)), ((1, x), (2, 1)), ((0, x + 1), (1, 1)),
                                    ((2, x), (2, 1)))]
    if name == "yuv444":
        return luma + [at(channel, x, y, 1, 1) for channel in (1, 2) for y in range(height)
                       for x in range(width)]
    blue, red = ([at(channel, x, y, 2, 2) for y in range(0, height, 2)
                  for x in range(0, width, 2)] for channel in (1, 2))
    if name == "i420":
        return luma + blue + red
    pairs = zip(blue, red) if name == "nv12" else zip(red, blue)
    return luma + [value for pair in pairs for value in pair]


class CameraFormats(InputsTest):
    SHAPES = {"nv12": [1, 1, 6, 6], "nv21": [6, 6], "i420": [1, 6, 6, 1], "yuyv": [1, 4, 6, 2],
              "yuv444": [1, 3, 4, 6]}

    def test_formulas(self):
        chance = np.random.default_rng(5)
        picture = chance.choice([0, 255, 30, 128, 200], (4, 6, 3))
        self.picture("a.png", picture)
        for name, shape in self.SHAPES.items():
            for matrix, levels in (("bt601", "limited"), ("bt601", "full"), ("bt709", "limited"),
                                   ("bt709", "full")):
                found, = self.prepare(shape, UINT8, "a.png", "--color", name, "--matrix", matrix,
                                      "--range", levels)
                exact = frame(name, picture.tolist(), matrix, levels == "full")
                self.assertEqual(len(found), len(exact))
                worst = max(abs(one - other) for one, other in zip(found, exact))
                self.assertLessEqual(worst, 0.501, (name, matrix))
        default, = self.prepare([6, 6], UINT8, "a.png", "--color", "nv12")
        self.assertLessEqual(max(abs(one - other) for one, other in zip(
            default, frame("nv12", picture.tolist(), "bt601", False))), 0.501)

    def test_alpha(self):
        Image.fromarray(np.uint8([[[1, 2, 3, 4], [5, 6, 7, 8]]] * 2)).save(self.dir / "alpha.png")
        self.picture("plain.png", [[RED, (9, 8, 7)]] * 2)
        for color, shape, files, wanted in [
                ("rgba", [2, 2, 4], ["alpha.png"], [1, 2, 3, 4, 5, 6, 7, 8] * 2),
                ("bgra", [1, 2, 2, 4], ["alpha.png"], [3, 2, 1, 4, 7, 6, 5, 8] * 2),
                ("rgba", [1, 4, 2, 2], ["plain.png"], [255, 9] * 2 + [0, 8] * 2 + [0, 7] * 2
                 + [255] * 4),
                ("bgra", [1, 4, 2, 2], ["alpha.png"], [3, 7] * 2 + [2, 6] * 2 + [1, 5] * 2
                 + [4, 8] * 2)]:
            self.assertEqual(self.prepare(shape, UINT8, "--color", color, *files), [wanted])
        bordered, = self.prepare([3, 5, 4], UINT8, "--color", "bgra", "--size", "pad", "--fill",
                                 "1,2,3", "plain.png")
        self.assertEqual(bordered[:4], [1, 2, 3, 255])

    def test_sizes(self):
        self.picture("a.png", [[RED] * 8] * 8)
        for shape, color, size, values in [([96], "nv12", "8x8", 96), ([1, 128], "yuyv", "8x8", 128),
                                           ([8, 16], "yuyv", None, 128), ([192], "rgb", "8x8", 192),
                                           ([1, 3, 8, 8], "yuv444", "8x8", 192)]:
            options = () if size is None else ("--picture", size)
            found, = self.prepare(shape, UINT8, "--color", color, *options, "a.png")
            self.assertEqual(len(found), values)
            self.assertIn(f", {color}", self.said)
        for shape, wanted in (([192], list(RED) * 64), ([1, 3, 8, 8], [255] * 64 + [0] * 128)):
            self.assertEqual(self.prepare(shape, UINT8, "--color", "rgb", "--picture", "8x8",
                                          "a.png"), [wanted])
        self.picture("b.png", [[RED, (1, 2, 3)]] * 4)
        self.assertEqual(self.prepare([1, 3, 4, 2], UINT8, "--color", "rgb", "--picture", "2x4",
                                      "b.png"), [[255, 1] * 4 + [0, 2] * 4 + [0, 3] * 4])
        self.assertEqual(len(self.prepare([2, 1, 12, 8], UINT8, "--color", "nv12", "a.png", "a.png",
                                          "a.png")), 2)
        for text, shape, *options in [
                ("both sides must be even", [96], "--color", "nv12", "--picture", "9x8"),
                ("both sides must be even", [15, 10 + 1], "--color", "i420"),
                ("the width must be even", [96], "--color", "yuyv", "--picture", "9x8"),
                ("do not tell the size", [96], "--color", "nv12"),
                ("no pictures of 8 x 8 in nv12 with 96 each", [97], "--color", "nv12", "--picture",
                 "8x8"),
                ("--picture needs --color", [192], "--picture", "8x8"),
                ("is not WIDTHxHEIGHT", [192], "--picture", "8"),
                ("neither limited nor full", [96], "--range", "wide")]:
            self.refused_for(text, shape, UINT8, *options, "a.png")

    def test_no_guess(self):
        self.picture("a.png", [[RED] * 8] * 8)
        status, _, errors = self.run_inputs([1, 1, 72, 48], UINT8, "a.png")
        self.assertEqual(status, 0)
        self.assertIn("taken for gray, but [1, 1, 72, 48] could be NV12 of 48 x 48", errors)
        for options in (("--color", "gray"), ("--color", "nv12")):
            self.prepare([1, 1, 72, 48], UINT8, "a.png", *options)  # says nothing

    def test_frames_are_shown_in_colour(self):
        """Of every format, and of signed bytes: left green, right blue."""
        self.picture("a.png", [[(0, 255, 0)] * 4 + [(0, 0, 255)] * 4] * 4)
        shapes = {**{name: [96 // 2] for name in ("nv12", "nv21", "i420")}, "yuyv": [4, 8, 2],
                  "yuv444": [3, 4, 8], "gray": [4, 8], "rgb": [3, 4, 8], "bgr": [4, 8, 3], "rgba": [4, 4, 8],
                  "bgra": [4, 8, 4]}
        for name, shape in shapes.items():
            options = ("--color", name, "--preview", "s.png",
                       *(("--picture", "8x4") if len(shape) == 1 else ()),
                       *(("--layout", "nhwc") if shape[-1] == 4 else ()))
            found, = self.prepare(shape, UINT8, "a.png", *options)
            self.write("frame.raw", bytes(found))
            signed = bytes(value - 128 & 255 for value in found)
            for frame, kind in ((bytes(found), UINT8), (signed, INT8)):
                self.write("frame.raw", frame)
                self.assertEqual(self.prepare(shape, kind, "frame.raw", *options),
                                 [np.frombuffer(frame, kind[0]).tolist()])
                with Image.open(self.dir / "s.png") as sheet:
                    shown = np.asarray(sheet, int)[22 + 36:22 + 108, 4:148]
                colours = ((150,) * 3, (29,) * 3) if name == "gray" else ((0, 255, 0), (0, 0, 255))
                for half, colour in zip((shown[:, 8:64], shown[:, 80:136]), colours):
                    self.assertLessEqual(np.abs(half - colour).max(), 3, name)

    def test_frames(self):
        """Raw data of any suffix, several in a file, in batches; the preview in colour."""
        green = bytes([149] * 64 + [43, 21] * 16)
        self.write("two.nv12", green + bytes(range(96)))
        self.write("one", green)
        self.assertEqual(self.prepare([1, 1, 12, 8], UINT8, "--color", "nv12", "--preview", "s.png",
                                      "two.nv12", "one"), [list(green), [*range(96)], list(green)])
        with Image.open(self.dir / "s.png") as sheet:
            near = [pixel for pixel in sheet.getdata()
                    if max(abs(a - b) for a, b in zip(pixel, (0, 255, 1))) <= 2]
            self.assertGreater(len(near), 2 * 140 * 140)
        source = json.loads((self.dir / "p/inputs.json").read_text())["files"][1]["sources"][0]
        self.assertEqual((source["path"], source["width"], source["height"], source["scale"]),
                         (f"{self.dir}/two.nv12[1]", 8, 8, [1, 1]))
        self.assertEqual(self.prepare([1, 1, 12, 8], UINT8, "two.nv12", "-b", "2", "--color",
                                      "nv12"), [[*green, *range(96)]])
        self.write("folder/b.raw", bytes(8))
        self.write("folder/a.bin", np.float32([1, 2]).tobytes())
        self.write("folder/notes", "mine")
        self.assertEqual(self.prepare([1, 2], FLOAT, "folder"), [[1, 2], [0, 0]])
        for name in ("a.png", "b.bmp", "c.tif", "d.jpg"):  # known by how they begin
            self.picture(name, [[RED] * 8] * 12)
            (self.dir / name).rename(self.dir / "unnamed")
            self.assertEqual(len(self.prepare([1, 3, 12, 8], UINT8, "unnamed")[0]), 288)
        self.write("begins-so.raw", b"BM" + bytes(94))
        self.assertEqual(self.prepare([1, 96], UINT8, "begins-so.raw")[0][:3], [66, 77, 0])
        self.refused_for("has 192 bytes, which are neither a picture nor raw data of x: these have "
                         "500", [1, 500], UINT8, "two.nv12")
        self.refused_for("has 0 bytes", [1, 500], UINT8, self.write("empty.raw", ""))


if __name__ == "__main__":
    unittest.main()
