"""Which files are taken, which inputs take pictures, where these lie in the input, and what is too
large."""

import json
import os
import unittest
import zipfile

import numpy as np
from PIL import Image, ImageOps
from prepared import FLOAT, INT32, RED, UINT8, InputsTest

from models import unary


class Files(InputsTest):
    def test_folders_of_classes(self):
        for name in ("b/2.png", "b/1.png", "a/deeper/9.png", ".hidden/0.png"):
            self.picture(f"pics/{name}", [[RED] * 2] * 2)
        self.write("pics/c/x.raw", bytes(12))
        self.write("pics/notes.txt", "mine")
        (self.dir / "pics/a/back").symlink_to("..")
        (self.dir / "pics/empty").mkdir()
        self.prepare([1, 2, 2, 3], UINT8, "pics")
        files = json.loads((self.dir / "p/inputs.json").read_text())["files"]
        self.assertEqual([file["sources"][0]["path"].removeprefix(f"{self.dir}/pics/")
                          for file in files], ["a/deeper/9.png", "b/1.png", "b/2.png", "c/x.raw"])

    def test_pipes_and_devices(self):
        names = "pipe.png", "list.txt", "pipe.npy", "pipe.npz", "pipe.raw"
        for name in names:
            os.mkfifo(self.dir / name)
        for name in (*names, "/dev/zero"):
            status, _, errors = self.run_inputs([1, 2, 2, 3], UINT8, name)
            self.assertEqual(status, 2)
            self.assertIn(f"cannot read {name}: it is no regular file", errors)

    def test_too_large(self):
        Image.new("1", (6000, 5000)).save(self.dir / "large.png")  # 3 kB
        status, _, errors = self.run_inputs([1, 2, 2, 3], UINT8, "large.png", "--largest", "100")
        self.assertEqual(status, 2)
        self.assertIn("large.png: 6000 x 5000 pixels take 114 MiB", errors)
        self.prepare([1, 2, 2, 3], UINT8, "large.png")
        # A JPEG is decoded at a reduced size, and lies in the input as the whole.
        Image.new("RGB", (4000, 2000), RED).save(self.dir / "large.jpg", exif=self.turned())
        found, = self.prepare([1, 3, 8, 4], UINT8, "large.jpg", "--largest", "10")
        self.assertEqual(found[:32], [254] * 32)
        source = json.loads((self.dir / "p/inputs.json").read_text())["files"][0]["sources"][0]
        self.assertEqual((source["width"], source["height"], source["scale"]),
                         (2000, 4000, [0.002, 0.002]))
        with zipfile.ZipFile(self.dir / "bomb.npz", "w", zipfile.ZIP_DEFLATED) as archive:
            with archive.open("a.npy", "w") as member:
                np.lib.format.write_array_header_1_0(member, {
                    "descr": "<f4", "fortran_order": False, "shape": (10**9, 2)})
                member.write(bytes(1 << 20))
        self.refused_for("bomb.npz[a] takes 7629 MiB", [1, 2], FLOAT, "bomb.npz")

    @staticmethod
    def turned():
        exif = Image.Exif()
        exif[0x0112] = 6
        return exif

    def test_integers_are_finite(self):
        for value in (np.nan, np.inf):
            np.save(self.dir / "a.npy", np.array([[1, value]]))
            status, _, errors = self.run_inputs([1, 2], UINT8, "a.npy")
            self.assertEqual(status, 2)
            self.assertIn("a.npy: holds NaN or infinity, which no uint8 can be", errors)
        self.assertEqual(self.prepare([1, 2], FLOAT, "a.npy"), [[1, np.inf]])


class Pictures(InputsTest):
    def test_unusual_pictures(self):
        self.picture("a.png", [[RED] * 4] * 4)
        for shape, element_type in [([1, 128], INT32), ([1, 128], FLOAT), ([4, 4], INT32),
                                    ([1, 3, 2, 66], UINT8), ([1, 3, 1, 8], FLOAT)]:
            self.refused_for("say with --layout", shape, element_type, "a.png")
            self.prepare(shape, element_type, "a.png", "--layout", "nchw")
        self.prepare([1, 3, 2, 64], UINT8, "a.png")

    def test_filters(self):
        """As Pillow's own calls."""
        pixels = np.random.default_rng(1).integers(0, 256, (30, 41, 3), np.uint8)
        self.picture("a.png", pixels)
        image = Image.fromarray(pixels)
        for name, method in (("bilinear", Image.Resampling.BILINEAR), ("area", Image.Resampling.BOX),
                             ("bicubic", Image.Resampling.BICUBIC),
                             ("nearest", Image.Resampling.NEAREST)):
            for size, made in (("stretch", image.resize((12, 8), method)),
                               ("crop", ImageOps.fit(image, (12, 8), method)),
                               ("fit", ImageOps.pad(image, (12, 8), method))):
                found = self.prepare([1, 8, 12, 3], UINT8, "a.png", "--filter", name, "--size", size)
                self.assertEqual(found, [np.asarray(made).reshape(-1).tolist()], (name, size))
        usual = self.prepare([1, 8, 12, 3], UINT8, "a.png")
        self.assertEqual(usual, self.prepare([1, 8, 12, 3], UINT8, "a.png", "--filter", "bilinear"))

    def test_place_in_the_input(self):
        """A white square is where scale and offset say."""
        for size, shape in [("crop", (40, 40)), ("crop", (60, 20)), ("fit", (40, 40)),
                            ("fit", (80, 20)), ("stretch", (50, 30)), ("pad", (40, 40)),
                            ("pad", (300, 300)), ("crop", (200, 100))]:
            picture = np.zeros((100, 200), np.uint8)
            picture[40:60, 80:110] = 255
            self.picture("a.png", picture)
            values, = self.prepare([1, 1, shape[1], shape[0]], UINT8, "a.png", "--size", size,
                                   "--color", "gray")
            source = json.loads((self.dir / "p/inputs.json").read_text())["files"][0]["sources"][0]
            self.assertEqual((source["width"], source["height"]), (200, 100))
            (wide, high), (right, down) = source["scale"], source["offset"]
            seen = np.array(values).reshape(shape[1], shape[0]) / 255
            across, along = seen.max(axis=0), seen.max(axis=1)
            for line, low, high_end in ((across, 80 * wide + right, 110 * wide + right),
                                        (along, 40 * high + down, 60 * high + down)):
                at = np.flatnonzero(line > 0.5)
                self.assertAlmostEqual(at[0], low, delta=1, msg=(size, shape))
                self.assertAlmostEqual(at[-1] + 1, high_end, delta=1, msg=(size, shape))

    def test_shape_of_pictures(self):
        self.picture("a.png", [[RED] * 4] * 4)
        self.prepare([1, 3, 8, 6], UINT8, "a.png", "--color", "bgr")
        manifest = json.loads((self.dir / "p/inputs.json").read_text())
        self.assertEqual((manifest["version"], manifest["model"]["pictures"]["x"]), (
            2, {"width": 6, "height": 8, "color": "bgr", "layout": "nchw"}))


class Descriptions(InputsTest):
    def test_all_that_the_runtime_says(self):
        """Not the last line alone, which may be half of a hint."""
        tool = self.write("tool", "#!/bin/sh\necho first >&2\necho 'write \"output_shapes\"' >&2\n"
                          "echo '[ERROR] load model failed'\nexit 1\n")
        os.chmod(tool, 0o755)
        self.write("m.onnx", unary("Relu", [1]))
        status, out, errors = self.run_companion("-m", "m.onnx", "--quilmrun", tool, "-o", "p",
                                                 "--random", "1")
        self.assertEqual((status, out), (2, ""))
        self.assertEqual(errors.splitlines(), [
            "first", 'write "output_shapes"',
            f"quilmrun-inputs: {tool} cannot describe m.onnx: load model failed"])


if __name__ == "__main__":
    unittest.main()
