"""quilmrun-compare: measures by hand, verdicts, what belongs together, and what it refuses."""

import json
import math
import unittest

import numpy as np
from companion import CompanionTest, log_text

STAMP = 1_795_000_000_000_000
NAN, INF = math.nan, math.inf


def as_written(values, kind):
    """What quilmrun writes of values: half floats and 32-bit integers as patterns."""
    if kind == "half":
        return np.float16(values).view(np.uint16).astype("<f4").tobytes()
    if kind == "int32":
        return np.int32(values).tobytes()
    return np.array(values, "<f4").tobytes()


def record(code):
    """record.json of a model with one output of a type."""
    return json.dumps({
        "displayTimeUnit": "ms", "otherData": {"format": "quilmrun-record", "version": 1,
                                               "complete": True, "statistics": {}},
        "traceEvents": [{"name": "quilm_mdl_get_output_data_type", "cat": "model", "ph": "X",
                         "ts": 1, "dur": 1, "pid": 1, "tid": 1, "args": {"result": code}}]})


class CompareTest(CompanionTest):
    name = "quilmrun-compare"

    def outputs_of(self, folder, *runs, stamp=STAMP, kind="float"):
        """Writes {output: values} of each run as quilmrun does; the key may be NAME.NUMBER."""
        for index, outputs in enumerate(runs):
            for name, values in outputs.items():
                stamp += 100
                name = name if "." in name else f"{name}.0"
                self.write(f"{folder}/{index}/{name}.{stamp}.bin", as_written(values, kind))

    def compare(self, *options, status=0, out="a", reference="b"):
        """comparison.json of two folders."""
        found, output, errors = self.run_companion(out, reference, "--json", "-", *options)
        self.assertEqual((found, errors), (status, ""), output)
        return json.loads(output)


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


class Refusals(CompareTest):
    def test_manual(self):
        self.check_manual()

    def test_wrong_input(self):
        self.outputs_of("a", {"y": [1]})
        self.outputs_of("other", {"z": [1]})
        self.outputs_of("two", {"y": [1], "z": [1]})
        (self.dir / "empty").mkdir()
        self.write("notes/a.txt", "mine")
        log = log_text([], [("y", "[1, ]", 0, 4, 4)])
        self.write("zero/log.txt", log)
        self.write("failed/log.txt", log + "[ERROR] execute model failed\n")
        self.write("text", "mine")
        self.write("cut.npy", b"\x93NUMPY")
        for text, arguments in [
                ("required: OUT, REFERENCE", ()), ("required: REFERENCE", ("a",)),
                ("No such file or directory; name the dir", ("none", "a")),
                ("there is no none", ("a", "none")), ("directory is empty", ("a", "empty")),
                ("the run had no inferences", ("zero", "a")),
                ('failed with "execute model failed"', ("a", "failed")),
                ("no outputs in notes", ("notes", "a")), ("name the one above", ("a/0", "a")),
                ("neither a folder nor an .npy", ("a", "text")), ("cut short", ("a", "cut.npy")),
                ("different models, or a compiler", ("a", "other")),
                ("different models", ("a", "two", "--by-order")),
                ("no output q", ("a", "a", "--scores", "q")),
                ("--scores", ("a", "a", "--top1", "1")), ("no share", ("a", "a", "--top1", "2")),
                ("no tolerance", ("a", "a", "--atol", "-1")),
                ("is not NAME=half", ("a", "a", "--type", "y=float64")),
                ("cannot read the log none", ("a", "a", "--log", "none")),
                ("describes no model", ("a", "a", "--log", "text")),
                ("is not JSON", ("a", "a", "--inputs", "text")),
                ("did not make it", ("a", "a", "--json", "text"))]:
            with self.subTest(text=text):
                self.refused(text, *arguments)
        self.assertEqual((self.dir / "text").read_text(), "mine")


if __name__ == "__main__":
    unittest.main()
