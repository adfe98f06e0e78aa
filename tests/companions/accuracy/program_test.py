"""quilmrun-accuracy on output folders: labels, annotations, verdicts, and what it refuses."""

import json
import sys
import unittest
from pathlib import Path

import numpy as np

sys.path.append(str(Path(__file__).resolve().parents[2]))
from companion import CompanionTest, log_text
from quilmrun_tools.artifacts.accuracy_results import read_accuracy
from quilmrun_tools.common.errors import Unreadable


class AccuracyTest(CompanionTest):
    name = "quilmrun-accuracy"

    def run_of(self, outputs, folder="out", sources=(), planned=None):
        """Writes the outputs of a run, {name: an array of inferences x ...}, with its log and, for
        sources, its inputs.json."""
        count = len(next(iter(outputs.values())))
        for run in range(count):
            for name, values in outputs.items():
                content = np.asarray(values[run])
                self.write(f"{folder}/{run}/{name}.0.{100 + run}.bin",
                           content.astype(content.dtype if content.dtype == "<i4" else
                                          "<f4").tobytes())
        described = [(name, f"[{', '.join(map(str, np.shape(values)[1:]))}, ]",
                      3 if np.asarray(values).dtype == "<i4" else 0, 4, 4)
                     for name, values in outputs.items()]
        files = [f"{self.dir}/p{folder}/{run}.bin" for run in range(planned or count)]
        self.write(f"{folder}/log.txt", log_text([("x", "[1, 3, 50, 100, ]", 0, 400, 60000)],
                                                 described, count, files))
        if sources:
            self.write(f"p{folder}/inputs.json", json.dumps({
                "format": "quilmrun-inputs", "version": 2, "created": "", "command": [],
                "options": {}, "list": "list.txt", "batch": 1, "model": {"path": "m", "pictures": {
                    "x": {"width": 100, "height": 50, "color": "rgb", "layout": "nchw"}}},
                "files": [{"inference": run, "input": "x", "file": f"{run}.bin", "bytes": 1,
                           "sha256": "", "sources": parts} for run, parts in enumerate(sources)]}))

    def source(self, path, width=200, height=200, scale=(0.5, 0.25), offset=(10, 5)):
        return {"path": path, "sha256": path, "width": width, "height": height, "scale": scale,
                "offset": offset}

    def judged(self, *arguments, status=0):
        """The results that the companion writes."""
        found, out, errors = self.run_companion(*arguments, "--json", "a.json")
        self.assertEqual((found, errors), (status, ""), out)
        self.said = out
        return json.loads((self.dir / "a.json").read_text())


class Labels(AccuracyTest):
    SCORES = [[9, 1, 0], [0, 1, 9], [5, 5, 0], [0, 9, 1]]  # right, wrong, tie, right
    PATHS = ["/v/cat/1.jpg", "/v/dog/1.jpg", "/v/cat/two words.jpg", "/v/dog/3.jpg"]

    def setUp(self):
        super().setUp()
        self.run_of({"prob": self.SCORES}, sources=[[self.source(path)] for path in self.PATHS])
        self.write("names.txt", "cat\ndog\nbig cow\n")

    def test_all(self):
        self.write("labels.csv", "\ufeffpicture,label\r\ncat/1.jpg,0\r\n\n./dog/1.jpg,1\n2,0\n3,1\n")
        result = self.judged("out", "--labels", "labels.csv", "--min-top1", "50%")
        self.assertEqual((result["task"], result["count"], result["top1"], result["top5"],
                          result["verdict"]), ("classification", 4, 0.5, 1, "pass"))
        self.assertEqual(result["confusion"], [[1, 1, 0], [0, 1, 1], [0, 0, 0]])
        self.assertEqual([(one["name"], one["support"], one["precision"], one["recall"])
                          for one in result["classes"]],
                         [("0", 2, 1, .5), ("1", 2, .5, .5), ("2", 0, 0, -1)])
        worst = result["worst"][0]
        self.assertEqual((worst["picture"]["path"], worst["true"], worst["given"]),
                         (self.PATHS[1], "1", "2"))
        self.assertAlmostEqual(worst["confidence"], 0.9995, places=3)
        for text in ("4 pictures, 3 classes", "top-1: 50.00% (95 % interval 15.00% to 85.00%), 2",
                     "class  support  precision  recall     F1\n"
                     "0            2      1.000   0.500  0.667\n",
                     "true  given  pictures\n0     1             1\n1     2             1\n",
                     "picture        true  given  confidence\n" "1.jpg          1     2           1.000\n",
                     "PASS: top-1 50.00%, limit 0.5"):
            self.assertIn(text, self.said)
        self.assertEqual(self.judged("out", "--labels", "labels.csv", "--min-top1", "50.1%",
                                     status=1)["verdict"], "fail")

    def test_kinds_of_labels(self):
        for text in ("0\tcat\n1\tdog\n/v/cat/two words.jpg\tbig cow\n3\t1\n",
                     "0 0\n1 1\ncat/two words.jpg big cow\n3 dog\n",
                     'image,class\n0,cat\n1,dog\n"cat/two words.jpg",big cow\n3,dog\n99,dog\n'):
            self.write("labels", text)
            result = self.judged("out", "--labels", "labels", "--classes", "names.txt")
            self.assertEqual([one["support"] for one in result["classes"]], [1, 2, 1], text)
            self.assertIsNone(result["verdict"])

    def test_types(self):
        """Without a log, half floats are the numbers that their bits spell."""
        bits = np.array([[-1, 0.5], [0.5, -1]], "<f2").view("<u2").astype("<f4")
        for run, row in enumerate(bits):
            self.write(f"half/{run}/prob.0.{run}.bin", row.tobytes())
        self.write("labels", "0 1\n1 0\n")
        self.assertEqual(self.judged("half", "--labels", "labels")["top1"], 0)
        self.assertEqual(self.judged("half", "--labels", "labels", "--type", "prob=half")["top1"],
                         1)

    def test_folders(self):
        result = self.judged("out", "--labels-from-folders", "--classes", "names.txt")
        self.assertEqual((result["top1"], [one["name"] for one in result["classes"]]),
                         (.5, ["cat", "dog", "big cow"]))
        self.run_of({"prob": [[1, 2], [1, 2]]}, "two", [[self.source("/v/b/1.jpg")],
                                                         [self.source("/v/a/1.jpg")]])
        result = self.judged("two", "--labels-from-folders")
        self.assertEqual(result["confusion"], [[0, 1], [0, 1]])
        self.assertIn("prob is the same for all 2 pictures", result["notes"])
        self.run_of({"prob": [[np.nan, 2], [1, 1], [0, 2]]}, "dead")
        self.write("labels", "0 0\n1 0\n2 1\n")
        self.assertEqual(self.judged("dead", "--labels", "labels")["notes"], [
            "prob holds NaN for 1 of 3 pictures",
            "prob has the same score for all classes for 1 of 3 pictures, which counts as wrong"])
        self.run_of({"prob": [[1, 2]]}, "seven", [[self.source("/v/1/7.jpg")]])
        self.assertEqual(self.judged("seven", "--labels-from-folders")["top1"], 1)

    def test_batches(self):
        """Four pictures at a time; in the last batch, two."""
        self.run_of({"prob": [[[0, 1], [1, 0], [0, 1], [0, 1]]] * 2}, "b",
                    [[self.source(f"/v/{run}{at}.jpg") for at in range(4 - 2 * run)]
                     for run in range(2)])
        self.write("labels", "00.jpg 1\n01.jpg 0\n02.jpg 1\n03.jpg 1\n4 1\n11.jpg 1\n")
        result = self.judged("b", "--labels", "labels")
        self.assertEqual((result["count"], result["confusion"]), (6, [[1, 0], [1, 4]]))
        self.assertEqual(result["worst"][0]["picture"], {"run": 1, "place": 1,
                                                         "path": "/v/11.jpg"})

    def test_against(self):
        self.run_of({"prob": [[9, 1, 0], [0, 9, 0], [5, 1, 0], [9, 0, 0]]}, "before",
                    [[self.source(path)] for path in self.PATHS])
        self.write("labels", "0 0\n1 1\n2 0\n3 1\n")
        found = self.judged("out", "--labels", "labels", "--against", "before")["against"]
        self.assertEqual((found["top1"], found["top5"], found["became_right"], found["became_wrong"], found["p"],
                          found["lost"]), (.75, 1, 1, 2, 1, [["0", 1]]))
        self.assertIn("against before: top-1 75.00% there, 50.00% here; 1 became right, 2 wrong "
                      "(McNemar's exact p 1)\nclasses that lost most: 0 (1)\n", self.said)
        self.run_of({"prob": self.SCORES}, "other", [[self.source("/v/other.jpg")]] * 4)
        self.refused("went over other pictures", "out", "--labels", "labels", "--against", "other")

    def test_refusals(self):
        self.run_of({"prob": self.SCORES[:2]}, "cut", planned=4,
                    sources=[[self.source(path)] for path in self.PATHS])
        self.run_of({"prob": self.SCORES, "more": self.SCORES}, "two")
        self.run_of({"prob": self.SCORES[:1]}, "spaces", [[self.source("/v/0 cat")]])
        for content, text in [("0,0\n1,1\n2,0\n", "no class for 1 of 4 pictures, such as /v/dog/3"),
                              ("0,0\n0,1\n", "line 2: the picture has another class"),
                              ("1.jpg,0\n", "line 1: 1.jpg is the name of 2 pictures"),
                              ("0,0\n1,3\n", "line 2: no class of the model in '1,3'"),
                              ("0,0\n1,dog\n", "line 2: no class"), ("", "no class for 4 of 4")]:
            self.write("labels", content)
            self.refused(text, "out", "--labels", "labels")
        self.write("labels", "0,0\n1,1\n2,0\n3,1\n")
        self.write("odd-names", "cat\ndog\ncat dog\n")
        self.write("odd", "0 cat dog\n")
        self.write("two-cats", "cat\ncat\ndog")
        self.write("cats", "0,cat\n")
        for text, *arguments in [
                ("no outputs of 2 of 4 inferences", "cut", "--labels", "labels"),
                ("several outputs of scores", "two", "--labels", "labels"),
                ("no output none", "two", "--labels", "labels", "--output", "none"),
                ("cannot read none", "out", "--labels", "none"),
                ("names 4 classes, but the model gives 3", "out", "--labels", "labels", "--classes",
                 "labels"),
                ("is the name of 2 classes", "out", "--labels", "cats", "--classes", "two-cats"),
                ("read in several ways", "spaces", "--labels", "odd", "--classes", "odd-names"),
                ("folder cat is no class", "out", "--labels-from-folders"),
                ("give one of --labels", "out"), ("give one of --labels", "out", "--boxes", "prob"),
                ("belong together", "out", "--annotations", "labels"),
                ("--min-ap does not belong", "out", "--labels", "labels", "--min-ap", "1"),
                ("is not NAME=half", "out", "--labels", "labels", "--type", "prob=double"),
                ("did not make it", "out", "--labels", "labels", "--json", "labels"),
                ("no share from 0 to 1", "out", "--labels", "labels", "--min-top1", "101%")]:
            self.refused(text, *arguments)

    def test_manual(self):
        self.check_manual()


class Boxes(AccuracyTest):
    # Objects of two classes; the third image has nothing.
    ANNOTATIONS = {
        "images": [{"id": 5, "file_name": "b.jpg", "width": 200, "height": 200},
                   {"id": 2, "file_name": "a.jpg", "width": 200, "height": 200},
                   {"id": 9, "file_name": "c.jpg", "width": 200, "height": 200}],
        "categories": [{"id": 4, "name": "cup"}, {"id": 1, "name": "pan"}],
        "annotations": [
            {"image_id": 5, "category_id": 4, "bbox": [20, 20, 80, 80], "area": 6400, "iscrowd": 0},
            {"image_id": 2, "category_id": 1, "bbox": [100, 100, 20, 20], "iscrowd": False}]}
    # In the input, 100 x 50 pixels: x * 0.5 + 10, y * 0.25 + 5.
    ROWS = [[[20, 10, 60, 30, .9, 0], [0, 0, 1, 1, 0, 1]], [[60, 30, 70, 35, .8, 1],
                                                            [0, 0, 9, 9, .9, 1]]]

    def setUp(self):
        super().setUp()
        self.run_of({"boxes": self.ROWS}, sources=[[self.source("/v/b.jpg")],
                                                   [self.source("/v/a.jpg")]])
        self.write("coco.json", json.dumps(self.ANNOTATIONS))

    def test_all(self):
        result = self.judged("out", "--annotations", "coco.json", "--boxes", "boxes", "--min-ap",
                             "0.75")
        self.assertEqual([round(result[name], 9) for name in (
            "ap", "ap50", "ap75", "ap_small", "ap_medium", "ap_large", "ar1", "ar10", "ar100")],
            [.75, .75, .75, .5, 1, -1, .5, 1, 1])
        self.assertEqual([(one["name"], round(one["ap"], 9)) for one in result["classes"]],
                         [("cup", 1), ("pan", .5)])
        self.assertEqual((result["verdict"], result["count"], result["objects"],
                          result["detections"]), ("pass", 2, 2, 3))
        worst = result["worst"][0]
        self.assertEqual([(box["kind"], box["name"], box["box"]) for box in worst["boxes"]],
                         [("wrong", "pan", [-20, -20, 18, 36]),
                          ("right", "pan", [100, 100, 20, 20])])
        self.assertIn("1 annotated images are not part", result["notes"][0])
        self.assertEqual(self.judged("out", "--annotations", "coco.json", "--boxes", "boxes",
                                     "--min-ap", "0.76", status=1)["verdict"], "fail")

    def test_other_forms(self):
        """The same boxes as shares, in outputs of their own, with ids of categories."""
        rows = np.array(self.ROWS)
        corners = rows[:, :, [1, 0, 3, 2]] / [50, 100, 50, 100]
        ids = np.array([[4, 1], [1, 1]], "<i4")
        self.run_of({"b": corners, "s": rows[:, :, 4], "c": ids, "n": np.array([[1], [2]], "<i4")},
                    "parts", [[self.source("/v/b.jpg")], [self.source("/v/a.jpg")]])
        result = self.judged("parts", "--annotations", "coco.json", "--boxes", "b", "--scores", "s",
                             "--classes-output", "c", "--count", "n", "--category-ids",
                             "--box-format", "y1,x1,y2,x2", "--min-score", "-1")
        self.assertEqual((round(result["ap"], 9), result["detections"]), (.75, 3))
        self.assertIn("shares of the input", " ".join(result["notes"]))

    def test_missed(self):
        """The best F1 is without boxes of low scores; a class may be the only one."""
        one = {**self.ANNOTATIONS, "categories": self.ANNOTATIONS["categories"][:1],
               "annotations": [dict(entry, category_id=4, bbox=[20, 20, 80, 80]) for entry in
                               self.ANNOTATIONS["annotations"]]}
        self.write("one.json", json.dumps(one))
        self.run_of({"boxes": [[[20, 10, 60, 30, .9, 5]], [[0, 0, 9, 9, .1, 5]]]}, "b",
                    [[self.source("/v/b.jpg")], [self.source("/v/a.jpg")]])
        command = "--boxes", "boxes", "--box-format", "x1,y1,x2,y2,score,-"
        result = self.judged("b", "--annotations", "one.json", *command)
        worst, = result["worst"]
        self.assertEqual((worst["picture"]["path"], worst["width"], worst["right"], worst["wrong"],
                          worst["missed"], worst["boxes"]), ("/v/a.jpg", 200, 0, 0, 1, [
                              {"kind": "missed", "name": "cup", "box": [20, 20, 80, 80],
                               "score": -1}]))
        self.assertEqual(result["threshold"], np.float32(.9))
        status, out, _ = self.run_companion("b", "--annotations", "one.json", *command, "--json",
                                            "-")
        self.assertEqual((status, json.loads(out)), (0, result))
        self.refused("class of a box either", "b", "--annotations", "coco.json", *command)

    def test_without_inputs(self):
        """Picture k is the k-th image, in its pixels."""
        self.run_of({"boxes": [[[20, 20, 100, 100, .5, 0]], [[100, 100, 120, 120, .5, 1]]]},
                    "plain")
        result = self.judged("plain", "--annotations", "coco.json", "--boxes", "boxes")
        self.assertEqual((round(result["ap"], 9), result["worst"]), (1, []))
        self.judged("plain", "--annotations", "coco.json", "--boxes", "boxes", "--min-ap", "1")

    def test_refusals(self):
        first, second = (self.source(f"/v/{name}.jpg") for name in "ba")
        old = {key: value for key, value in second.items() if key not in ("scale", "offset")}
        for name, sources in [("unknown", [[first], [self.source("/v/z.jpg")]]),
                              ("old", [[first], [old]]), ("twice", [[first], [first]]),
                              ("resized", [[first], [self.source("/v/a.jpg", 100)]])]:
            self.run_of({"boxes": self.ROWS}, name, sources)
        self.run_of({"boxes": self.ROWS * 2}, "many")
        command = "--annotations", "coco.json", "--boxes", "boxes"
        broken = {"annotations": [{"image_id": 1, "category_id": 4, "bbox": [0, 0, 1, 1]}],
                  "categories": self.ANNOTATIONS["categories"] * 2, "images": [{"id": "5"}]}
        for name, value in broken.items():
            self.write(f"{name}.json", json.dumps({**self.ANNOTATIONS, name: value}))
        for text, *arguments in [
                ("1 of 2 pictures are not annotated, such as /v/z.jpg", "unknown", *command),
                ("prepare the inputs again", "old", *command),
                ("b.jpg is the name of 2 pictures", "twice", *command),
                ("annotated at 200 x 200 pixels, but /v/a.jpg has 100 x", "resized", *command),
                ("4 pictures, and only 3 are annotated", "many", *command),
                ("names 5 columns, not 6", "out", *command, "--box-format", "x1,x2,y1,y2,score",
                 "--classes-output", "boxes"),
                ("score of a box either", "out", *command, "--box-format", "x1,y1,x2,y2,class,-"),
                ("class of a box either", "out", *command, "--classes-output", "boxes"),
                ("no output none", "out", "--annotations", "coco.json", "--boxes", "none"),
                ("gives the class 20", "out", *command, "--box-format", "class,y1,x2,y2,score,x1"),
                ("names an image or a category", "out", "--annotations", "annotations.json",
                 "--boxes", "boxes"),
                ("with the same id", "out", "--annotations", "categories.json", "--boxes", "boxes"),
                ("images[0].id is '5'", "out", "--annotations", "images.json", "--boxes", "boxes"),
                ("is not JSON", "out", "--annotations", "out/log.txt", "--boxes", "boxes")]:
            self.refused(text, *arguments)

    def test_results_are_checked(self):
        result = self.judged("out", "--annotations", "coco.json", "--boxes", "boxes", "--min-ap",
                             "0.5")
        self.assertEqual(read_accuracy(self.dir / "a.json").ap50, result["ap50"])
        for name, value, text in [("verdict", "fail", "contradicts itself"),
                                  ("version", 9, "has version 9"), ("ap", "x", "ap is 'x'"),
                                  ("format", "other", "was not written by"),
                                  ("task", "other", "contradicts itself")]:
            self.write("b.json", json.dumps({**result, name: value}))
            with self.assertRaisesRegex(Unreadable, text):
                read_accuracy(self.dir / "b.json")


if __name__ == "__main__":
    unittest.main()
