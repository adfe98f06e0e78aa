"""Sections of the page against the files that they show: numbers are read back from tables and
drawings."""

import io
import json
import os
import pathlib
import re
import sys
import unittest

from PIL import Image

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from pages import ReportTest, record

from quilmrun_tools.artifacts import accuracy_results as accuracy
from quilmrun_tools.artifacts import board_results as boards
from quilmrun_tools.artifacts import layer_results as layers


def classification(size=3):
    """Class c1 is taken for c0 in 3 of 5 pictures."""
    confusion = [[10 if row == column else 0 for column in range(size)] for row in range(size)]
    confusion[1][0], confusion[1][1] = 3, 2
    classes = [accuracy.ClassAccuracy(f"c{at}", sum(confusion[at]), 0.9, 1.0 - 0.6 * (at == 1), 0.8)
               for at in range(size)]
    wrong = accuracy.WrongPicture(accuracy.Picture(7, 0, "no/such <b>.png"), "c1", "c0", 0.93)
    return accuracy.Classification(
        "out", 25, 0.88, 0.96, (0.7, 0.958), (0.8, 0.99), accuracy.Macro(0.9, 0.8, 0.85), classes,
        confusion, [wrong], accuracy.Against("earlier", 0.8, 0.9, 4, 2, 0.6875, [("c1", 2)]))


def detection(picture):
    drawn = [accuracy.DrawnBox("right", "coin", (10.0, 20.0, 30.0, 40.0), 0.9),
             accuracy.DrawnBox("wrong", "coin", (1.0, 2.0, 3.0, 4.0), 0.6),
             accuracy.DrawnBox("missed", "<i>", (5.0, 6.0, 7.0, 8.0), -1.0)]
    worst = accuracy.DetectedPicture(accuracy.Picture(3, 0, str(picture)), 64, 48, 1, 1, 1, drawn)
    return accuracy.Detection("out", 2, 5, 9, 0.41, 0.7, 0.45, -1.0, 0.4, 0.5, 0.2, 0.6, 0.61,
                              [accuracy.ClassDetection("coin", 0.41, 5)], 0.25, [worst])


def layer(name, snr, own, passed=True, histogram=None):
    return layers.LayerResult(name, "Conv", name, "", 0, [], 0.999, snr, 0.01, None, None, 0.99, own,
                              "scale" if not passed else None, "times 0.5", passed, "", histogram)


class Sections(ReportTest):
    def make(self, write):
        """The page of a run that has a short record and what `write` makes of an open text."""
        self.write("run/record.json", json.dumps(record([10, 20])))
        write()
        status, said, errors = self.run_companion("run")
        self.assertEqual((status, errors), (0, ""), said)

    def write_accuracy(self, results):
        text = io.StringIO()
        accuracy.write_accuracy("-", results, text)
        self.write("run/accuracy.json", text.getvalue())

    def test_classes(self):
        self.make(lambda: self.write_accuracy(classification()))
        rows = self.rows("run", "accuracy")
        self.assertIn(["run", "25", "88.0 %", "70.0 % to 95.8 %", "96.0 %", "90.0 %", "80.0 %",
                       "85.0 %"], rows)
        self.assertIn(["c1", "3", "2", ""], rows)  # of the matrix
        self.assertEqual([row[0] for row in rows if len(row) == 5 and row[0] in ("c0", "c1", "c2")],
                         ["c1", "c0", "c2"])  # the worst recall first
        page = self.page("run")
        for text in ("4 pictures became right and 2 wrong (McNemar&#39;s exact p = 0.688)",
                     "c1, taken for c0 with 93%", "no/such &lt;b&gt;.png",
                     "the picture is not on this machine"):
            self.assertIn(text.replace("&#39;", "'"), page)

    def test_many_classes(self):
        """Their matrix is a picture with one pixel a cell."""
        self.make(lambda: self.write_accuracy(classification(40)))
        self.assertIn('class="matrix" src="data:image/png', self.page("run"))
        self.assertIn("The 20 worst of 40 classes", self.page("run"))

    def test_boxes(self):
        picture = self.dir / "coins.png"
        Image.new("RGB", (64, 48)).save(picture)
        self.make(lambda: self.write_accuracy(detection(picture)))
        self.assertIn(["Precision", "41.0 %", "70.0 %", "45.0 %", "–", "40.0 %", "50.0 %"],
                      self.rows("run", "accuracy"))
        page = self.page("run")
        for text in ('<svg viewBox="0 0 64 48"', "1 right, 1 wrong, 1 missed",
                     '<rect class="right" x="10.0" y="20.0" width="30.0" height="40.0" '
                     'stroke-dasharray=""><title>right: coin 0.90</title>',
                     'stroke-dasharray="7 4"><title>wrong: coin 0.60</title>',
                     'stroke-dasharray="1.5 4"><title>missed: &lt;i&gt;</title>'):
            self.assertIn(text, page)

    def test_layers(self):
        found = [layer("a", 60.0, 61.0), layer("b", 12.0, 8.0, False, layers.Histogram(
            0.0, 4.0, [1, 2, 3, 4], [4, 3, 2, 1])), layer("c", 11.0, float("inf"))]
        result = layers.LayersResult("fail", "b", "b", ["b"], None, True,
                                     layers.LayerLimits(20.0, 0.99, True), 4, 4, "probe", "run",
                                     "pc", found)
        self.make(lambda: self.write("run/layers.json", json.dumps(
            layers.headed(layers.RESULT_FORM, result))))
        self.assertEqual([row[0] for row in self.rows("run", "layers")], ["Layer", "a", "b", "c"])
        depth, histogram = self.charts("run")[-2:]
        self.assertEqual([(series["names"], series["points"]) for series in depth["series"]],
                         [(["a", "b", "c"], [[0, 60], [1, 12], [2, 11]]),
                          (["a", "b"], [[0, 61], [1, 8]])])  # infinity is not drawn
        self.assertEqual([(mark["axis"], mark["at"], mark["label"]) for mark in depth["marks"]],
                         [("x", 1, "first: b"), ("x", 1, "worst: b"), ("y", 20, "limit")])
        self.assertEqual([series["points"] for series in histogram["series"]],
                         [[[0, 1, 1], [1, 2, 2], [2, 3, 3], [3, 4, 4], [4, 0]],
                          [[0, 4, 1], [1, 3, 2], [2, 2, 3], [3, 1, 4], [4, 0]]])

    def test_boards(self):
        latency = boards.Latency("record", 500, 1.25, 2.5, 1.2, 1.3, 700.0)
        slow = boards.Difference(0.25, 0.2, 0.31)
        found = [boards.Board("root@a", "aarch64", "", "", 3, 600, 0, 2.0, "", latency,
                              boards.Difference(0.01, -0.02, 0.04)),
                 boards.Board("b", "aarch64", "", "", 2, 400, 1, 2.0, "", latency, slow),
                 boards.Board("c", left_out="3 parts in a row failed")]
        results = boards.BoardResults("2026-11-23T07:00:00Z", "r", ["quilmrun"], {}, 1000, 1, 0,
                                      boards=found)
        text = io.StringIO()
        results.write("-", text)
        self.make(lambda: self.write("run/boards.json", text.getvalue()))
        self.assertEqual(self.rows("run", "boards")[1:], [
            ["root@a", "aarch64", "3", "600", "1.25 ms", "2.50 ms", "300", "0", "no difference shown"],
            ["b", "aarch64", "2", "400", "1.25 ms", "2.50 ms", "200", "1",
             "⚠ +25.0 % (+20.0 % to +31.0 %)"],
            ["c", "–", "0", "0", "–", "–", "–", "0", "left out 3 parts in a row failed"]])

    def test_damaged(self):
        for name in ("accuracy", "layers", "boards"):
            self.write("run/record.json", json.dumps(record([10])))
            self.write(f"run/{name}.json", '{"format": "other"}')
            status, _, errors = self.run_companion("run")
            self.assertEqual((status, errors.count("\n")), (0, 1))
            self.assertIn(f"{name}.json was not written by quilmrun-{name}", errors)
            (self.dir / f"run/{name}.json").unlink()


class Trust(ReportTest):
    """What a page, which is passed on, may take from the files that others name."""

    def shown(self, path):
        """What the page of a run says of one of its worst pictures, or its kind of data URI."""
        found = classification()
        found.worst = [accuracy.WrongPicture(accuracy.Picture(0, 0, str(path)), "c1", "c0", 0.9)]
        text = io.StringIO()
        accuracy.write_accuracy("-", found, text)
        self.write("run/accuracy.json", text.getvalue())
        self.write("run/record.json", json.dumps(record([10, 20])))
        self.assertEqual(self.run_companion("run")[0], 0)
        return re.search(r'class="with-boxes">(?:<div class="no-picture">|<img src=")([^<;]*)',
                         self.page("run"))[1]

    def test_pictures(self):
        good = self.dir / "good.png"
        Image.new("RGB", (6, 4)).save(good)
        self.assertEqual(self.shown(good), "data:image/jpeg")
        for name, content, remark in [
                ("script.png", b"%!PS-Adobe-3.0 EPSF-3.0\n%%BoundingBox: 0 0 9 9\nshowpage\n",
                 "the picture cannot be read"),
                ("other.gif", b"GIF89a", "not a picture"), ("text.png", b"text",
                                                            "the picture cannot be read")]:
            self.assertEqual(self.shown(self.write(name, content)), remark)
        os.mkfifo(self.dir / "fifo.png")
        self.assertEqual(self.shown(self.dir / "fifo.png"), "the picture is not on this machine")

    def test_changed_picture(self):
        """Another picture of the same name is not shown in its place."""
        picture = self.dir / "p.png"
        Image.new("RGB", (6, 4)).save(picture)
        source = {"path": str(picture), "sha256": "0" * 64, "width": 6, "height": 4}
        self.write("run/inputs.json", json.dumps(
            {"format": "quilmrun-inputs", "version": 1, "created": "", "command": [], "options": {},
             "model": {}, "list": "list.txt", "batch": 1, "files": [
                 {"inference": 0, "input": "x", "file": "0.bin", "bytes": 4, "sha256": "",
                  "sources": [source]}]}))
        self.assertEqual(self.shown(picture), "the picture has changed since the run")

    def test_settings(self):
        for content, shown in (('{"threads": 1}', True), ("SECRET=1", False), ("", False)):
            made = record([10, 20])
            made["otherData"]["command"] += ["-j", self.write("settings", content)]
            self.write("run/record.json", json.dumps(made, default=str))
            self.assertEqual(self.run_companion("run")[0], 0)
            self.assertEqual("which say" in self.page("run"), shown)
            self.assertFalse("SECRET" in self.page("run"))


class Drawings(ReportTest):
    def test_numbers(self):
        """One execution in four takes 2 ms, the others 1 ms, after a warm-up of 5 ms."""
        times = [2000 if at % 4 == 0 else 1000 for at in range(200)]
        self.write("run/record.json", json.dumps(record([5000, *times])))
        self.assertEqual(self.run_companion("run")[0], 0)
        histogram, course, memory = self.charts("run")
        bins = histogram["series"][0]["points"]
        self.assertEqual([(round(start, 3), count) for start, count, *_ in bins if count],
                         [(1.0, 150), (1.979, 50)])
        self.assertEqual((histogram["across"]["low"], histogram["across"]["high"]), (1, 2))
        self.assertEqual([mark["at"] for mark in histogram["marks"]], [1, 2, 2, 2])
        points = course["series"][-1]["points"]
        self.assertEqual([point[1:] for point in points[:3]], [[5, 0], [2, 1], [1, 2]])
        self.assertEqual(len(points), 201)
        self.assertEqual((memory["up"]["unit"], memory["series"][0]["points"][-1][1]), ("KB", 201))
        rows = {row[0]: row for row in self.rows("run", "latency")}
        self.assertEqual(rows["All other executions"][1:],
                         ["200", "1.00 ms", "1.25 ms", "1.00 ms", "2.00 ms", "2.00 ms", "2.00 ms",
                          "2.00 ms", "800"])
        self.assertIn("coefficient of variation is 34.6 %", self.page("run"))


if __name__ == "__main__":
    unittest.main()
