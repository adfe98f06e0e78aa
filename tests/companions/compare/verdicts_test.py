"""quilmrun-compare: what passes and what does not."""

import json
import pathlib
import re
import sys
import unittest
from unittest import mock

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import CompareTest

from quilmrun_tools.common import tables
from quilmrun_tools.compare import collect


class Verdicts(CompareTest):
    def test_limits(self):
        self.outputs_of("a", {"y": [100.05, 1]}, {"y": [1, 1]})
        self.outputs_of("b", {"y": [100, 1]}, {"y": [1, 1]})
        for options, status in [
                ((), 1), (("--atol", ".06"), 0), (("--atol", ".04"), 1), (("--rtol", "6e-4"), 0),
                (("--rtol", "4e-4"), 1), (("--rtol", "4e-4", "--atol", ".02"), 0),
                (("--cosine", "0.9999"), 0), (("--cosine", "0.9999", "--atol", "0"), 1),
                (("--cosine", "1"), 1)]:
            with self.subTest(options=options):
                found, out, _ = self.run_companion("a", "b", *options)
                self.assertEqual(found, status, out)
                self.assertIn(("\nPASS: 2 runs, ", "\nFAIL: 1 of 2 outputs beyond ")[status], out)

    def test_worst_runs_by_their_pictures(self):
        self.outputs_of("a", {"y": [1]}, {"y": [2]}, {"y": [1.5]})
        self.outputs_of("b", *[{"y": [1]}] * 4)
        files = [{"inference": run, "input": "x", "file": f"{run}.bin", "bytes": 1, "sha256": "",
                  "sources": [{"path": f"/photos/{name}", "sha256": "", "width": 1, "height": 1}]}
                 for run, name in enumerate(("café.jpg", "b\n.jpg", "c.jpg", "d.jpg"))]
        self.write("p/inputs.json", json.dumps({
            "format": "quilmrun-inputs", "version": 1, "created": "", "command": [], "options": {},
            "model": {}, "list": "list.txt", "batch": 1, "files": files}))
        self.write("a/log.txt", log_text([], [("y", "[1, ]", 0, 4, 4)], 3,
                                         files=[f"{self.dir}/p/0.bin"]))
        _, out, _ = self.run_companion("a", "b")
        worst = out.partition("worst runs:\n")[2].splitlines()[1:3]
        self.assertEqual([(line.split()[0], line.split()[-1]) for line in worst],
                         [("1", "b?.jpg"), ("2", "c.jpg")])
        self.assertIn("\n3/y: missing; d.jpg\n", out)
        self.assertEqual(self.compare(status=1)["runs"][1]["sources"], ["/photos/b\n.jpg"])

    def test_dead_outputs_are_named(self):
        """Fifty times the same scores agree with nothing, and are named."""
        rng = np.random.default_rng(1)
        wanted = rng.random((50, 10))
        same = rng.random(10)
        for ours, note in [
                (np.zeros((50, 10)), "y: the output has one and the same value everywhere in each"),
                (np.tile(same, (50, 1)), "y: the output is the same in all 50 inferences"),
                (np.full((50, 10), np.nan), "y: every value is NaN"),
                (np.roll(wanted, 1, axis=1), None)]:
            with self.subTest(note=note):
                self.outputs_of("a", *({"y": row} for row in ours))
                self.outputs_of("b", *({"y": row} for row in wanted))
                found = self.compare("--scores", "y", "--top1", "95%", status=1)
                self.assertLess(found["outputs"][0]["top1"], .5)
                self.assertEqual([said.partition(" in each")[0] for said in found["notes"]],
                                 [note.partition(" in each")[0] + ", the reference is not"
                                  * ("same in all" in note)] if note else [])
        self.outputs_of("b", *({"y": same} for _ in range(50)))
        self.outputs_of("a", *({"y": same} for _ in range(50)))
        self.assertEqual(self.compare("--scores", "y", "--top1", "95%")["notes"], [])

    def test_common_hides_no_inference_of_the_log(self):
        self.outputs_of("a", *[{"y": [1]}] * 3)
        self.outputs_of("b", *[{"y": [1]}] * 5)
        for text, status in [("", 0), (log_text([], [("y", "[1, ]", 0, 4, 4)], 3), 0),
                             (log_text([], [("y", "[1, ]", 0, 4, 4)], 4), 1),
                             (log_text([], [("y", "[1, ]", 0, 4, 4)], 3)
                              + "[INFO]  Model Iters : 5\n", 1)]:
            self.write("a/log.txt", text)
            found = self.compare("--common", status=status)
            self.assertEqual(len(found["reasons"]), status)
        self.outputs_of("gap", *[{"y": [1]}] * 3)
        (self.dir / "gap/1").rename(self.dir / "gap/7")
        self.compare("--common", out="gap")  # without a log, these may be all that was fetched
        self.assertEqual(found["reasons"], ["a has the outputs of 3 of 5 inferences"])
        self.assertEqual(self.compare("--common", out="b", reference="a", status=1)["reasons"],
                         found["reasons"])

    def test_what_is_listed(self):
        """Failures up to a number and the worst others, whatever their number."""
        self.assertEqual(collect.MOST_FAILURES, 1000)
        self.outputs_of("a", *({"y": [run % 2]} for run in range(60)), {"y": [1 + 1e-7]})
        self.outputs_of("b", *[{"y": [0]}] * 60, {"y": [1]})
        for options, count in [((), 20 + 10), (("--worst", "15"), 35), (("--all-runs",), 61)]:
            with mock.patch.object(collect, "MOST_FAILURES", 20):
                found = self.compare(*options, status=1)
            self.assertEqual((len(found["runs"]), found["failed"], found["compared"]),
                             (count, 30, 61))
            passed = [run["index"] for run in found["runs"] if run["pass"]]
            self.assertEqual(passed[:4], [60, 0, 2, 4])
            self.assertEqual([run["index"] for run in found["runs"][:20]], [*range(1, 41, 2)])
        self.assertEqual((len(found["differences"]), found["differences"][0]), (61, [0, 0]))
        _, out, _ = self.run_companion("a", "b", "--worst", "2")
        self.assertEqual(re.findall(r"^(\d+) +y ", out, re.M), ["1", "3"])
        self.assertIn("\nFAIL: 30 of 61 outputs beyond the limits (61 runs; |diff", out)


class Parts(unittest.TestCase):
    def test_differences_of_long_runs(self):
        differences = collect._Differences()  # pylint: disable=protected-access
        for run in range(20_000):
            for value in (run % 7, 100 if run == 9_999 else 0):
                differences.add(run, value)
        points = differences.points()
        self.assertTrue(2000 < len(points) <= 4096)
        self.assertEqual(max(points, key=lambda point: point[1]), (9_999, 100))
        self.assertEqual(points, sorted(points))
        self.assertTrue(all(value == 6 or run > 19_990 or value == 100 for run, value in points
                            if value not in (4, 5)))

    def test_labels(self):
        """As much of a path as tells it from the others."""
        self.assertEqual(tables.labels_of(["/a/b/1.png", "/a/c/1.png", "/d/b/1.png", "/a/2.png", "x"]),
                         {"/a/b/1.png": "a/b/1.png", "/a/c/1.png": "c/1.png",
                          "/d/b/1.png": "d/b/1.png", "/a/2.png": "2.png", "x": "x"})


if __name__ == "__main__":
    unittest.main()
