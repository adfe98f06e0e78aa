"""A probe of a model and its runs, in the folder of a test."""

import json
import pathlib
import sys

import numpy as np
import onnx

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import CompanionTest
from tool import QUILMRUN


class ProbeTest(CompanionTest):
    """A test that probes m.onnx, and runs probes on inputs made at random."""

    name = "quilmrun-layers"

    def probe(self, model, *options):
        """Writes the probe; returns its layers.json."""
        onnx.save(model, str(self.dir / "m.onnx"))
        status, out, errors = self.run_companion("probe", "m.onnx", "-o", "p", *options)
        self.assertEqual(status, 0, out + errors)
        self.said = out + errors
        return json.loads((self.dir / "p/layers.json").read_text())

    def inputs(self, shape, count=2, seed=0):
        """Writes input files and in.txt."""
        random = np.random.default_rng(seed)
        for number in range(count):
            self.write(f"{number}.bin", np.float32(random.normal(size=shape)).tobytes())
        self.write("in.txt", "".join(f"{number}.bin\n" for number in range(count)))

    def run_probe(self, model, folder, log=True):
        """Runs a model, or the one in a file, into a folder."""
        if not isinstance(model, str):
            onnx.save(model, str(self.dir / "board.onnx"))
            model = "board.onnx"
        self.write(f"{folder}/quilm.json", "{}")
        status, out, errors = self.run_tool("-m", model, "-i", "in.txt", "-j",
                                            f"{folder}/quilm.json", "-o", folder)
        self.assertEqual((status, "[ERROR]" in out), (0, False), out + errors)
        if log:
            self.write(f"{folder}/log.txt", out.replace("$D", str(self.dir)))

    def find(self, *options, status, board="b", pc="pc"):
        """The result of a search as JSON."""
        found, out, errors = self.run_companion("find", "p", board, pc, "--quilmrun", QUILMRUN,
                                                "--json", "-", *options)
        self.assertEqual((found, errors), (status, ""), out)
        return json.loads(out)

    def values(self, folder, name, run=0):
        """The values of an output of an inference."""
        path, = (self.dir / folder / str(run)).glob(f"{name}.0.*.bin")
        return np.fromfile(path, "<f4")
