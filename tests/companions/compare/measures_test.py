"""quilmrun-compare: measures, against known answers."""

import math
import pathlib
import sys
import unittest

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import CompareTest, record

NAN, INF = math.nan, math.inf


class Measures(CompareTest):
    def test_by_hand(self):
        large = np.ones(200_000, np.float32)
        changed = large.copy()
        changed[-1] = 3
        for values, wanted, expected in [
                ([1, 2, 2], [1, 2, 2],
                 {"max_abs": 0, "cosine": 1, "snr_db": "inf", "differing": 0}),
                ([3, 0], [0, 4], {"max_abs": 4, "mean_abs": 3.5, "max_rel": 1, "cosine": 0,
                                  "differing": 1, "snr_db": 10 * math.log10(16 / 25)}),
                ([1, 5], [0, 4], {"max_abs": 1, "max_rel": .25, "cosine": 20 / math.sqrt(26 * 16)}),
                ([2, 2], [-2, -2], {"cosine": -1.0, "max_rel": 2}),
                ([0, 0], [0, 0], {"cosine": 1, "snr_db": "inf"}),
                ([1, 0], [0, 0], {"cosine": 0, "snr_db": "-inf", "max_rel": 0}),
                ([NAN, INF, -INF, 1], [NAN, INF, -INF, 2],
                 {"max_abs": 1, "differing": .25, "nan": [1, 1], "inf": [2, 2]}),
                ([NAN, 1], [2, 1], {"max_abs": "inf", "nan": [1, 0], "differing": .5}),
                ([1e30, 0], [0, 1e30], {"max_abs": 1e30, "cosine": 0}),
                ([1e-30, 0], [0, 2e-30], {"max_abs": 2e-30, "cosine": 0}),
                (changed, large, {"elements": 200_000, "max_abs": 2, "mean_abs": 1e-5,
                                  "snr_db": 10 * math.log10(200_000 / 4)}),
                (np.append(large, NAN), np.append(changed, 0), {"max_abs": "inf", "nan": [1, 0]})]:
            with self.subTest(values=values):
                self.outputs_of("a", {"y": values})
                self.outputs_of("b", {"y": wanted})
                found = self.compare("--cosine", "0", status=expected.get("cosine") == -1 or
                                     expected.get("max_abs") == "inf")
                found = found["outputs"][0]
                for key, value in expected.items():
                    if isinstance(value, float):
                        self.assertAlmostEqual(found[key] / (value or 1), value and 1, 5, key)
                    else:
                        self.assertEqual(found[key], value, key)

    def test_large_and_many(self):
        """What is shared among the processors comes together again, in order."""
        large = np.random.default_rng(1).standard_normal(5_000_000, np.float32)
        near = large + np.float32(1e-3)
        near[-1] += 7
        self.outputs_of("a", {"x": near}, *({"y": [run, 1]} for run in range(1, 500)))
        self.outputs_of("b", {"x": large}, *({"y": [run, 2]} for run in range(1, 500)))
        found = self.compare("--worst", "0", status=1)
        x, y = found["outputs"]
        difference = np.abs(near.astype(float) - large)
        self.assertEqual((x["elements"], x["differing"], y["runs"]), (5_000_000, 1, 499))
        for key, value in [("max_abs", difference.max()), ("mean_abs", difference.mean()),
                           ("snr_db", 10 * np.log10(np.square(large, dtype=float).sum() /
                                                    np.square(difference).sum()))]:
            self.assertAlmostEqual(x[key] / value, 1, 5, key)
        self.assertEqual([run["index"] for run in found["runs"][:3]], [1, 2, 3])

    def test_types(self):
        for kind, values, wanted in [("half", [1.5, -2, 65504, NAN], [1, -2, 65504, NAN]),
                                     ("int32", [-1, 7, 2**31 - 1], [-1, 8, 2**31 - 1])]:
            self.outputs_of("a", {"y": values}, kind=kind)
            self.outputs_of("b", {"y": wanted}, kind=kind)
            self.outputs_of("c", {"y": wanted})
            named = "--type", f"y={kind}"
            code = {"half": 1, "int32": 3}[kind]
            self.write("l", log_text([], [("y", "[4, ]", code, 16, 16)], 1))
            self.write("r.json", record(code))
            for options, reference in [(named, "b"), (("--log", "l", "--reference-log", "l"), "b"),
                                       (("--log", "r.json", "--reference-log", "r.json"), "b"),
                                       ((*named, "--reference-type", "y=float"), "c")]:
                found = self.compare(*options, reference=reference, status=1)["outputs"][0]
                self.assertEqual((found["max_abs"], found["type"]), ({"half": .5, "int32": 1}[kind],
                                                                     kind))
        self.refused("does not hold half floats", "c", "c", "--type", "y=half")

    def test_scores(self):
        ours = [[0, 3, 1, 2, 4, 5, 6], [9, 0, 0, 0, 0, 0, 1], [1, 1, 0, 0, 0, 0, 0]]
        theirs = [[9, 3, 1, 2, 4, 5, 6], [9, 0, 0, 0, 0, 0, 8], [0, 1, 0, 0, 0, 0, 0]]
        self.outputs_of("a", *({"y": row} for row in ours))
        self.outputs_of("b", *({"y": row} for row in theirs))
        for options, status in [(("--top1", "33%"), 0), (("--top1", ".4"), 1)]:
            found = self.compare("--scores", "y", *options, status=status)
            self.assertEqual([round(found["outputs"][0][key], 3) for key in ("top1", "top5")],
                             [.333, .667])
            self.assertEqual({run["index"] for run in found["runs"][:2]}, {0, 2})
        # The log tells which outputs are vectors of scores, and how long these are.
        self.outputs_of("batch", {"y": np.ravel(ours)})
        self.outputs_of("wanted", {"y": np.ravel(theirs)})
        self.write("wanted/log.txt", log_text([], [("y", "[1, 7, ]", 0, 28, 28)], 1))
        found = self.compare(out="batch", reference="wanted", status=1)["outputs"][0]
        self.assertEqual(round(found["top1"], 3), .333)


if __name__ == "__main__":
    unittest.main()
