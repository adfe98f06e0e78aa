"""quilmrun-layers find: kinds of errors, limits, verdicts, and what it says of the probe."""

import unittest

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from probed import ProbeTest

NODE = helper.make_node
CHANNELS, SIDE = 8, 12


def chain(layers=4):
    """Convolutions that keep what they get, each with a bias; c2 is the second."""
    weights = np.eye(CHANNELS, dtype=np.float32).reshape(CHANNELS, CHANNELS, 1, 1)
    nodes, values, last = [], [], "x"
    for number in range(1, layers + 1):
        values += [numpy_helper.from_array(weights, f"w{number}"),
                   numpy_helper.from_array(np.full(CHANNELS, .1, np.float32), f"b{number}")]
        nodes.append(NODE("Conv", [last, f"w{number}", f"b{number}"], [f"c{number}"]))
        last = f"c{number}"
    graph = helper.make_graph(
        nodes, "g", [helper.make_tensor_value_info("x", TensorProto.FLOAT,
                                                   ["N", CHANNELS, SIDE, SIDE])],
        [helper.make_tensor_value_info(last, TensorProto.FLOAT, None)], values)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    model.ir_version = 7
    return model


class Kinds(ProbeTest):
    def setUp(self):
        super().setUp()
        self.probe(chain())
        self.inputs((CHANNELS, SIDE, SIDE))
        self.run_probe("p/probe.onnx", "pc")
        self.runs = 0

    def board(self, change, layer="c2"):
        """A run in which a layer's values went through `change`, and what follows is as it is."""
        self.runs += 1
        folder = f"b{self.runs}"
        self.run_probe("p/probe.onnx", folder)
        names = [f"c{number}" for number in range(1, 5)]
        for run in (0, 1):
            made = [self.values("pc", name, run).reshape(CHANNELS, -1) for name in names]
            at = names.index(layer)
            delta = change(made[at].copy()) - made[at]
            for name, values in zip(names[at:], made[at:]):
                path, = (self.dir / folder / str(run)).glob(f"{name}.0.*.bin")
                path.write_bytes(np.float32(values + delta).tobytes())
        return folder

    def test_kinds(self):
        random = np.random.default_rng(7)  # not the inputs' once more

        def one_channel(values):
            values[3] *= 2
            return values

        def two_offsets(values):
            values[:4] += .4
            values[4:] -= .4
            return values

        def not_a_number(values):
            values[0, 0] = np.nan
            return values
        for kind, said, change in [
                ("offset", "0.500 on average", lambda values: values + .5),
                ("offset", "a constant difference", two_offsets),
                ("scale", "0.700 times", lambda values: values * .7),
                ("saturation", "clipped at 1.00", lambda values: values.clip(None, 1)),
                ("saturation", "clipped at \N{MINUS SIGN}0.500", lambda values: values.clip(-.5)),
                ("one channel", "channel 3, 2.00 times", one_channel),
                ("no numbers", "2 values are NaN", not_a_number),
                ("noise", "neither", lambda values: values + random.normal(
                    0, .3, values.shape).astype("f4"))]:
            with self.subTest(kind):
                result = self.find("--own", status=1, board=self.board(change))
                self.assertEqual((result["worst_own"], result["first"]), ("c2", "c2"))
                self.assertEqual(result["named"][1:], ["c3", "c4"] if kind == "no numbers" else [])
                layer = result["layers"][1]
                self.assertEqual((layer["kind"], layer["pass"]), (kind, False))
                self.assertIn(said, layer["explanation"])
                self.assertEqual(sum(layer["histogram"]["board"]), 2 * CHANNELS * SIDE ** 2)

    def test_figures_by_hand(self):
        result = self.find("--own", status=1, board=self.board(lambda values: values * 1.5))
        one, two, three, _ = result["layers"]
        self.assertEqual((one["snr_db"], one["own_snr_db"], one["drop_db"]), ("inf", "inf", 0))
        self.assertAlmostEqual(two["snr_db"], 20 * np.log10(2), 4)
        self.assertAlmostEqual(two["own_snr_db"], 20 * np.log10(2), 4)
        self.assertAlmostEqual(two["drop_db"], 60 - 20 * np.log10(2), 4)
        self.assertAlmostEqual(two["cosine"], 1, 6)
        self.assertGreater(three["own_snr_db"], 100)
        self.assertEqual(result["largest_drop"], "c2")
        values = np.concatenate([self.values("pc", "c2", run) for run in (0, 1)])
        self.assertAlmostEqual(two["relative_difference"],
                               np.abs(values).max() / 2 / np.ptp(values), 4)

    def test_limits(self):
        slight = self.board(lambda values: values * 1.05)  # 26 dB, cosine 1
        noise = self.board(lambda values: values + np.float32(
            np.random.default_rng(1).normal(0, .12, values.shape)))  # 18 dB, cosine 0.993
        for status, folder, options in [
                (1, slight, ("--own",)), (0, slight, ()), (0, slight, ("--own", "--snr", "25")),
                (1, slight, ("--own", "--snr", "27")), (1, slight, ("--snr", "27")),
                (0, slight, ("--cosine", "0.9999")), (1, noise, ()),
                (0, noise, ("--cosine", "0.99")), (1, noise, ("--cosine", "0.995")),
                (0, noise, ("--own", "--snr", "17"))]:
            with self.subTest((folder, options)):
                self.find(*options, status=status, board=folder)

    def test_saved_errors(self):
        folder = self.board(lambda values: values * 1.5)
        before = self.find("--own", status=1, board=folder)
        saved = self.dir / "p/own-errors.json"
        text = saved.read_text()
        saved.write_text(text.replace('"snr_db": 6.02', '"snr_db": 7.02'))
        after = self.find("--own", status=1, board=folder)
        self.assertAlmostEqual(after["layers"][1]["own_snr_db"],
                               before["layers"][1]["own_snr_db"] + 1, 6)
        self.assertEqual(self.find("--own", "--runs", "1", status=1, board=folder)["own_runs"], 1)
        saved.write_text(text[:-9])
        self.assertEqual(self.find("--own", status=1, board=folder), before)

    def test_text(self):
        status, out, errors = self.run_companion(
            "find", "p", self.board(lambda values: values + .5), "pc")
        self.assertEqual((status, errors), (1, ""))
        self.assertRegex(out, r"c2 +Conv +0\.\d{5} +6\.\d .*<- first beyond the limits <- largest drop")
        self.assertIn("\nFAIL: c2 beyond the limits (SNR >= 20 dB, cosine >= 0.99; 2 inferences)\n"
                      "  c2 (Conv): SNR 6.", out)


class OfTheProbe(ProbeTest):
    def test_plain_run(self):
        self.probe(chain())
        self.inputs((CHANNELS, SIDE, SIDE))
        self.run_probe("p/probe.onnx", "pc")
        self.run_probe("m.onnx", "same")
        wrong = chain()
        wrong.graph.initializer[3].CopyFrom(numpy_helper.from_array(
            np.full(CHANNELS, 2, np.float32), "b2"))
        self.run_probe(wrong, "wrong")
        for agree, folder in ((True, "same"), (False, "wrong")):
            result = self.find("--plain", folder, status=0, board="pc")
            self.assertEqual(result["plain"]["agree"], agree)
        out = self.run_companion("find", "p", "pc", "pc", "--plain", "wrong")[1]
        self.assertTrue(out.startswith("THE PROBE CHANGES THE RESULT"), out)

    def test_probe_to_run_next(self):
        self.probe(chain(8), "--at-most", "2")
        self.inputs((CHANNELS, SIDE, SIDE))
        for number in (1, 4):
            self.run_probe(f"p/probe-{number}.onnx", f"pc/probe-{number}")
        spoiled = onnx.load(str(self.dir / "p/probe-4.onnx"))
        spoiled.graph.initializer[9].CopyFrom(numpy_helper.from_array(
            np.full(CHANNELS, 2, np.float32), "b5"))
        self.run_probe("p/probe-1.onnx", "b/probe-1")
        self.run_probe(spoiled, "b/probe-4")
        result = self.find("--own", status=1)
        self.assertEqual((result["first"], result["run_next"]), ("c6", "probe-2.onnx"))

    def test_outputs_that_are_missing(self):
        self.probe(chain())
        self.inputs((CHANNELS, SIDE, SIDE))
        for folder in ("pc", "b"):
            self.run_probe("p/probe.onnx", folder, log=False)
        self.assertEqual(self.find("--own", status=0)["own_runs"], 2)
        for run in (0, 1):
            for path in (self.dir / "b" / str(run)).glob("c2.*"):
                path.rename(path.with_name(path.name.replace("c2", "z")))
        self.refused("not decided: no layer is beyond the limits, but 1 could not be judged; c2: "
                     "missing in b", "find", "p", "b", "pc")
        self.assertEqual(len(self.find("--by-order", status=0)["layers"]), 4)
        self.run_probe("m.onnx", "few")
        self.refused("--by-order: few has 1 outputs", "find", "p", "few", "pc", "--by-order")


if __name__ == "__main__":
    unittest.main()
