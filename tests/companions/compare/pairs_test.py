"""quilmrun-compare: what belongs together, and what cannot be compared."""

import pathlib
import sys
import unittest

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import STAMP, CompareTest


class Pairs(CompareTest):
    def test_files_of_earlier_runs(self):
        self.outputs_of("a", *[{"y": [9], "other": [9]}] * 4, stamp=STAMP - 10**6)
        self.outputs_of("a", {"y": [0]}, {"y": [1]})
        self.outputs_of("b", {"y": [0]}, {"y": [1]})
        self.refused("--newest", "a", "b")
        found = self.compare("--newest")
        self.assertEqual((found["verdict"], found["outputs"][0]["runs"]), ("pass", 2))
        self.assertEqual(found["left_out"]["output"]["count"], 8)
        self.assertIn("8 outputs of other runs", found["notes"][0])

    def test_names_order_and_duplicates(self):
        self.outputs_of("a", {"y.0": [1], "y.1": [2], "new": [3]})
        self.outputs_of("b", {"y.0": [1], "y.1": [2], "old": [3]})
        found = self.compare(status=1)
        self.assertEqual(sorted((run["output"], run["duplicate"], run["problem"])
                                for run in found["runs"]),
                         [("new", 0, "missing in the reference"), ("old", 0, "missing"),
                          ("y", 0, ""), ("y", 1, "")])
        for option in ("--by-order", "--common"):
            self.compare(option)

    def test_sizes_are_explained(self):
        self.write("a/log.txt", log_text([], [("y", "[1, 3, ]", 0, 32, 32)], 1))
        for ours, theirs, text in [
                (range(8), range(3), "the output has its row padding"),
                (range(3), range(8), "the reference has its row padding"),
                (range(12), range(3), "holds 4 times as many bytes"),
                (range(3), range(9), "the reference holds 3 times as many"),
                (range(4), range(3), "different models or layouts"), ([], [1], "was cut short")]:
            with self.subTest(text=text):
                self.outputs_of("a", {"y": list(ours)})
                self.outputs_of("b", {"y": list(theirs)})
                self.assertIn(text, self.compare(status=1)["runs"][0]["problem"])
        self.write(f"a/0/y.0.{STAMP + 100}.bin", b"12345")
        self.assertIn("was cut short", self.compare(status=1)["runs"][0]["problem"])

    def test_arrays_as_reference(self):
        values = np.arange(6, dtype=np.float64).reshape(2, 3)
        self.outputs_of("a", *({"y_1": row} for row in values))
        (self.dir / "runs/1").mkdir(parents=True)
        (self.dir / "all").mkdir()
        np.save(self.dir / "one.npy", values[:, None])
        np.save(self.dir / "all/y.1.npy", np.float16(values))
        np.save(self.dir / "runs/1/y_1.npy", values[1].astype(np.int64))
        for reference, runs in [("one.npy", 2), ("all", 2), ("runs", 1)]:
            found = self.compare("--common", reference=reference)
            self.assertEqual((found["outputs"][0]["runs"], found["outputs"][0]["max_abs"]),
                             (runs, 0))
        # Two batches in a run; a row too few and one too many.
        self.outputs_of("batches", {"y": values.ravel()})
        self.compare(out="batches", reference="one.npy")
        for rows, text in [(values[:1], "missing in the reference"),
                           (values[[0, 1, 1]], "missing")]:
            np.save(self.dir / "one.npy", rows)
            found = self.compare(reference="one.npy", status=1)
            self.assertEqual([run["problem"] for run in found["runs"]][:2], [text, ""])
        np.save(self.dir / "one.npy", values + [[0, 0, 0], [0, 0, 1]])
        self.assertEqual(self.compare(reference="one.npy", status=1)["runs"][0]["index"], 1)

    def test_arrays_of_outputs_with_the_same_name(self):
        self.outputs_of("a", {"y.0": [1], "y.1": [2]}, {"y.0": [3], "y.1": [4]})
        (self.dir / "all").mkdir()
        np.save(self.dir / "all/y.npy", np.array([[1.], [3.]]))
        np.save(self.dir / "all/y.1.npy", np.array([[2.], [4.]]))
        self.assertEqual(self.compare(reference="all")["compared"], 4)
        np.save(self.dir / "all/y.0.npy", np.array([[1.], [3.]]))
        self.refused("a second array for output y: remove one", "a", "all")

    def test_a_log_above_the_directory(self):
        """It counts when it is of as many inferences; otherwise it may be another directory's."""
        self.outputs_of("run/out", {"y": [1.5]}, {"y": [2]}, kind="half")
        self.outputs_of("b", {"y": [1.5]}, {"y": [2]})
        for executed, status in [(2, 0), (3, 1)]:
            self.write("run/log.txt", log_text([], [("y", "[1, ]", 1, 2, 2)], executed))
            self.compare(out="run/out", status=status)


if __name__ == "__main__":
    unittest.main()
