"""quilmrun-inputs: every byte that it writes of small pictures and arrays, and what it refuses."""

import json
import os
import shutil
import unittest
import zipfile

import numpy as np
from prepared import BLUE, FLOAT, GREEN, GREY, HALF, INT8, INT32, RED, UINT8, InputsTest

from companion import log_text
from models import copies
from PIL import Image
from tool import QUILMRUN


class Pictures(InputsTest):
    def test_elements(self):
        colours = self.picture("colours.png", [[RED, GREEN], [BLUE, GREY]])
        grey = self.picture("grey.bmp", [[0, 10], [200, 255]])
        wide = self.picture("wide.tif", [[10, 20, 30, 40]] * 2)
        one = self.picture("one.png", [[RED]])
        # Shown turned to the right by a quarter: the first row becomes the last column.
        turned = self.picture("turned.png", [[RED, GREEN]], exif=self.turned_right())
        tiff = self.picture("turned.tif", [[RED, GREEN]], exif=self.turned_right())
        pages = self.picture("pages.tif", [[RED, GREEN]], save_all=True,
                             append_images=[Image.new("RGB", (2, 1))])
        broken = self.picture("broken.png", [[GREY]], exif=b"Exif\0\0damaged data")
        planes = [255, 0, 0, 100, 0, 255, 0, 100, 0, 0, 255, 100]
        rows = [
            (colours, [1, 3, 2, 2], FLOAT, (), planes),
            (colours, [3, 2, 2], UINT8, (), planes),
            (colours, [1, 3, 2, 2], UINT8, ("--color", "bgr"),
             planes[8:] + planes[4:8] + planes[:4]),
            (colours, [1, 2, 2, 3], UINT8, (), [*RED, *GREEN, *BLUE, *GREY]),
            (colours, [1, 3, 2, 2], FLOAT, ("--scale", "1/255", "--mean", "0,0.5,1", "--std", "2"),
             np.float32([(value / 255 - mean) / 2 for value, mean in
                         zip(planes, [0] * 4 + [.5] * 4 + [1] * 4)]).tolist()),
            # Halves round to even; what is beyond the range becomes the range's end.
            (grey, [1, 1, 2, 2], INT8, ("--mean", "128"), [-128, -118, 72, 127]),
            (grey, [1, 1, 2, 2], INT8, (), [0, 10, 127, 127]),
            (grey, [1, 1, 2, 2], UINT8, ("--scale", "0.25"), [0, 2, 50, 64]),
            (grey, [1, 1, 2, 2], UINT8, ("--mean", "20"), [0, 0, 180, 235]),
            (grey, [1, 1, 2, 2], HALF, ("--scale", "1000"), [0, 10000, 65504, 65504]),
            (grey, [2, 2], INT32, ("--scale", "100000000"),
             [0, 1000000000, 2147483647, 2147483647]),
            (wide, [1, 1, 2, 2], UINT8, (), [20, 30, 20, 30]),
            (wide, [1, 1, 4, 4], UINT8, ("--size", "fit", "--fill", "7"),
             [7] * 4 + [10, 20, 30, 40] * 2 + [7] * 4),
            (wide, [1, 1, 2, 8], UINT8, ("--size", "pad"), [0, 0, 10, 20, 30, 40, 0, 0] * 2),
            (one, [1, 3, 1, 3], UINT8, ("--size", "pad", "--color", "bgr", "--fill", "1,2,3"),
             [1, 0, 1, 2, 0, 2, 3, 255, 3]),
            (one, [1, 3, 1, 2], UINT8, ("--size", "stretch"), [255, 255, 0, 0, 0, 0]),
            (turned, [1, 2, 1, 3], UINT8, (), [*RED, *GREEN]),
            (tiff, [1, 2, 1, 3], UINT8, (), [*RED, *GREEN]),
            (pages, [1, 3, 1, 2], UINT8, (), [255, 0, 0, 255, 0, 0]),
            (broken, [1, 1, 1, 1], UINT8, (), [100])]
        for name, shape, element_type, options, expected in rows:
            with self.subTest(name=name, shape=shape, options=options):
                # That pictures of one row, or of 32-bit integers, are meant, has to be said.
                layout = "nhwc" if shape[-1] == 3 and shape[1] != 3 else "nchw"
                self.assertEqual(self.prepare(shape, element_type, "--layout", layout, *options,
                                              name), [expected])
                if name in (turned, tiff):  # the size is that of the upright picture
                    source = json.loads((self.dir / "p/inputs.json").read_text())["files"][0][
                        "sources"][0]
                    self.assertEqual((source["width"], source["height"]), (1, 2))

    @staticmethod
    def turned_right():
        exif = Image.Exif()
        exif[0x0112] = 6
        return exif

    def test_sixteen_bits(self):
        Image.fromarray(np.array([[0, 256], [65535, 32768]], np.uint16)).save(self.dir / "a.png")
        self.assertEqual(self.prepare([1, 1, 2, 2], UINT8, "a.png"), [[0, 1, 255, 128]])

    def test_manifest_and_preview(self):
        self.picture("Bäume: 1\n.png", [[RED]])
        self.prepare([1, 3, 1, 1], UINT8, "--layout", "nchw", "--preview", "sheet.png", "--json",
                     "result.json", ".")
        manifest = json.loads((self.dir / "p/inputs.json").read_text())
        entry = manifest["files"][0]
        self.assertEqual((entry["inference"], entry["input"], entry["file"], entry["bytes"]),
                         (0, "x", "00000_B_ume_1_.bin", 3))
        self.assertEqual((entry["sources"][0]["path"], entry["sources"][0]["width"]),
                         (f"{self.dir}/Bäume: 1\n.png", 1))
        self.assertEqual(json.loads((self.dir / "result.json").read_text())["files"],
                         manifest["files"])
        with Image.open(self.dir / "sheet.png") as sheet:
            self.assertEqual(sheet.size, (448, 184))
            self.assertGreater(sum(pixel == RED for pixel in sheet.getdata()), 100 * 100)

    def test_unreadable(self):
        self.picture("photos/b.png", [[RED]])
        whole = (self.dir / "photos/b.png").read_bytes()
        self.write("photos/a.png", whole[:45])
        self.write("photos/c.jpg", "no picture")
        Image.fromarray(np.ones((1, 1), np.float32)).save(self.dir / "photos/d.tif")
        self.write("log.txt", log_text([self.model_log([1, 3, 1, 1], UINT8)]))
        command = "--model-log", "log.txt", "-o", "p", "--layout", "nchw", "photos"
        status, out, errors = self.run_companion(*command)
        self.assertEqual((status, out), (2, ""))
        for text in ("photos/a.png: damaged, cut short", "photos/c.jpg: no picture",
                     "photos/d.tif: its pixels are floating", "3 unreadable"):
            self.assertIn(text, errors)
        self.assertFalse((self.dir / "p").exists())
        self.write("only/a.png", "no picture")
        status, _, errors = self.run_companion(*command[:-1], "--skip-unreadable", "only")
        self.assertEqual((status, errors.splitlines()[-1]), (
            2, "quilmrun-inputs: nothing can be read, so nothing was written"))
        status, out, _ = self.run_companion(*command, "--skip-unreadable", "--json", "-")
        self.assertEqual([reason.partition(":")[0] for reason in json.loads(out)["skipped"]],
                         ["photos/a.png", "photos/c.jpg", "photos/d.tif"])
        status, out, _ = self.run_companion(*command, "--skip-unreadable")
        self.assertEqual(status, 0)
        self.assertIn("1 inference, 3 left out", out)
        self.assertEqual((self.dir / "p/00000_b.bin").read_bytes(), bytes(RED))


class OtherSources(InputsTest):
    def test_arrays(self):
        np.save(self.dir / "a.npy", np.array([[1.5, 2.5], [-1, 300.7], [255.4, -0.4]]))
        with zipfile.ZipFile(self.dir / "new.npz", "w") as archive, \
                archive.open("z.npy", "w") as member:
            np.lib.format.write_array(member, np.array([5, 6]), version=(2, 0))
        np.savez(self.dir / "b.npz", first=np.int64([[1, 2]]), second=np.array([3, 4]))
        np.save(self.dir / "c.npy", np.array([True, False]))
        self.write("list.txt", "a.npy\r\n\nb.npz\nc.npy\nnew.npz")
        self.assertEqual(self.prepare([1, 2], UINT8, "list.txt"),
                         [[2, 2], [0, 255], [255, 0], [1, 2], [3, 4], [1, 0], [5, 6]])
        self.assertIn("2 of 14 values were beyond the range of uint8", self.said)
        # Of frames, the first dimension, there may be fewer.
        np.save(self.dir / "frames.npy", np.ones((5, 2)))
        self.assertEqual(self.prepare([3, 2], FLOAT, "frames.npy"), [[1.0] * 6, [1.0] * 4])
        np.save(self.dir / "runs.npy", np.arange(12).reshape(2, 3, 2))
        self.assertEqual(self.prepare([3, 2], FLOAT, "runs.npy"), [[*range(6)], [*range(6, 12)]])
        self.picture("a.png", [[RED] * 2] * 2)
        np.save(self.dir / "whole.npy", np.ones((2, 3, 2, 2)))
        self.refused_for("2 pictures at a time: give it either", [2, 3, 2, 2], FLOAT, "a.png",
                         "whole.npy")

    def test_batches(self):
        for value in range(3):
            self.picture(f"photos/{value}.png", [[value, value]])
        layout = "--layout", "nchw"
        self.assertEqual(self.prepare([1, 1, 1, 2], UINT8, "photos", "-b", "2", *layout),
                         [[0, 0, 1, 1], [2, 2]])
        self.assertIn("2 inferences of 2 batches, 1 in the last in p/list.txt", self.said)
        self.assertIn("-o OUT -b 2\n", self.said)
        self.assertEqual(self.prepare([2, 1, 1, 2], UINT8, "photos", *layout),
                         [[0, 0, 1, 1], [2, 2]])
        self.refused_for("would have 2147483648 bytes, and quilmrun takes 2147483647", [1, 1 << 20],
                         UINT8, "--random", "1", "-b", "2048")
        self.refused("has padded rows", "--model-log", self.write("log.txt", log_text(
            [self.model_log([1, 1, 1, 2], UINT8, stride=32)])), "-o", "q", "photos", "-b", "2",
            *layout)

    def test_one_for_all(self):
        """An input with a single row has it in every inference, in the last batch as often."""
        self.write("log.txt", log_text([self.model_log([1, 2], UINT8, name) for name in "ab"]))
        np.save(self.dir / "a.npy", np.arange(6).reshape(3, 2))
        np.save(self.dir / "b.npy", np.array([[7, 8]]))
        status, _, errors = self.run_companion("--model-log", "log.txt", "-o", "p", "--input",
                                               "a=a.npy", "--input", "b=b.npy", "-b", "2")
        self.assertEqual((status, errors), (0, ""))
        self.assertEqual([[*(self.dir / "p" / line.partition(":")[2]).read_bytes()] for line in
                          (self.dir / "p/list.txt").read_text().splitlines()],
                         [[0, 1, 2, 3], [7, 8, 7, 8], [4, 5], [7, 8]])

    def test_random(self):
        values = [self.prepare([1, 1000], INT8, "--random", 2, "--seed", seed)
                  for seed in (1, 2, 1)]
        self.assertEqual(values[0], values[2])
        self.assertNotEqual(values[0], values[1])
        self.assertNotEqual(*values[0])
        self.assertLess(min(values[0][0]), -100)
        ids = self.prepare([1, 1000], INT32, "--random", 1, "--range", "3,5")[0]
        self.assertEqual(set(ids), {3, 4, 5})
        for kind, low, high in ((FLOAT, 0, 1), (INT32, 0, 255), (INT8, -128, 127)):
            values = self.prepare([1, 5000], kind, "--random", 1)[0]
            self.assertGreaterEqual(min(values), low)
            self.assertLessEqual(max(values), high)
            self.assertGreater(max(values) - min(values), 0.99 * (high - low))

    def test_several_inputs_through_the_tool(self):
        """Identity passes on what the files hold; a list cannot hold a name with a colon."""
        for names in (("right", "left"), ("a:0", "b=c")):
            with self.subTest(names=names):
                self.write("m.onnx", copies(dict(zip(names, ([1, 3, 1, 1], [1, 2])))))
                self.picture("photos/1.png", [[RED]])
                self.picture("photos/2.png", [[GREEN]])
                np.save(self.dir / "box.npy", np.float32([[5, 6]]))
                status, _, errors = self.run_companion(
                    "-m", "m.onnx", "--quilmrun", os.path.abspath(QUILMRUN), "-o", "p", "--input",
                    f"{names[0]}=photos", "--input", f"{names[1]}=box.npy", "--layout", "nchw")
                self.assertEqual((status, errors), (0, ""))
                self.write("q.json", "{}")
                status, out, _ = self.run_tool("-m", self.dir / "m.onnx", "-i", "p/list.txt", "-j",
                                               "q.json", "-o", "out")
                self.assertEqual(status, 0, out)
                written = [np.frombuffer(content, "<f4").tolist() for name, content in
                           sorted(self.outputs("out").items()) if name.endswith(".bin")]
                self.assertEqual(sorted(written), [[0, 255, 0], [5, 6], [5, 6], [255, 0, 0]])
                shutil.rmtree(self.dir / "out")
                (self.dir / "out").mkdir()
                shutil.rmtree(self.dir / "p")


class Refusals(InputsTest):
    def test_manual(self):
        self.check_manual()

    def test_wrong_input(self):
        self.write("log.txt", log_text([self.model_log([1, 3, 2, 2], UINT8)]))
        self.write("two.txt", log_text([self.model_log([1, 2], UINT8, name) for name in "ab"]))
        self.write("dynamic.txt", log_text([("x", "[-1, 2, ]", 0, 8, 8)]))
        self.write("failed.txt", "[ERROR] quilm init failed\n")
        self.write("empty.txt", "\n")
        self.write("a.png", "no picture")
        self.write("cut.npy", b"\x93NUMPY\x01\0")
        np.save(self.dir / "odd.npy", np.zeros((3, 5)))
        np.save(self.dir / "three.npy", np.zeros((3, 2)))
        np.save(self.dir / "four.npy", np.zeros((4, 2)))
        np.save(self.dir / "text.npy", np.array(["x"]))
        (self.dir / "folder/deeper").mkdir(parents=True)
        before = self.outputs(".")
        for text, arguments in [
                ("give either --model or", ("a.png",)),
                ("name pictures or arrays", ("--model-log", "log.txt")),
                ("cannot read the log none", ("--model-log", "none", "a.png")),
                ('failed with "quilm init failed"', ("--model-log", "failed.txt", "a.png")),
                ("there is no none", ("--model-log", "log.txt", "none")),
                ("names no files", ("--model-log", "log.txt", "empty.txt")),
                ("folder holds no pictures, arrays or raw", ("--model-log", "log.txt", "folder")),
                ("no array of numbers, or was cut", ("--model-log", "log.txt", "cut.npy")),
                ("not numbers", ("--model-log", "log.txt", "text.npy")),
                ("holds [3, 5], but x takes [1, 3, 2, 2]", ("--model-log", "log.txt", "odd.npy")),
                ("no pictures of 1 channels",
                 ("--model-log", "log.txt", "a.png", "--color", "gray")),
                ("1 or 3 numbers here", ("--model-log", "log.txt", "a.png", "--mean", "1,2")),
                ("must not be 0", ("--model-log", "log.txt", "a.png", "--std", "1,0,1")),
                ("--seed is 0 or more", ("--model-log", "log.txt", "--random", "1", "--seed", "-1")),
                ("neither a number", ("--model-log", "log.txt", "a.png", "--std", "1/0")),
                ("fixed dimensions", ("--model-log", "dynamic.txt", "--random", "1")),
                ("--input a=three.npy", ("--model-log", "two.txt", "three.npy")),
                ("b has no source", ("--model-log", "two.txt", "--input", "a=three.npy")),
                ("one of a, b", ("--model-log", "two.txt", "--input", "c=three.npy")),
                ("3 for a, 4 for b", ("--model-log", "two.txt", "--input", "a=three.npy", "--input",
                                      "b=four.npy")),
                ("cannot describe none: failed to get file", (
                    "-m", "none", "--quilmrun", os.path.abspath(QUILMRUN), "a.png")),
                ("did not make it", ("--model-log", "log.txt", "a.png", "--preview", "log.txt")),
                ("did not make it", ("--model-log", "log.txt", "a.png", "--json", "log.txt"))]:
            with self.subTest(text=text):
                self.refused(text, "-o", "p", *arguments)
                self.assertEqual(self.outputs("."), before)
                self.assertFalse((self.dir / "p").exists())

    def test_no_room(self):
        self.write("log.txt", log_text([self.model_log([1, 1000], UINT8)]))
        command = "--model-log", "log.txt", "-o", "p", "--random", "1"
        self.refused("cannot write to p: File too large", *command,
                     within=("prlimit", "--fsize=500"))
        self.assertFalse((self.dir / "p").exists())
        self.refused("cannot write: No space left", *command,
                     within=("sh", "-c", 'exec "$@" > /dev/full', "sh"))


if __name__ == "__main__":
    unittest.main()
