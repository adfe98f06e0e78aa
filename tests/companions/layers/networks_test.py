"""Twenty networks made at random, in each of which one layer is spoiled, and others with noise."""

import re
import unittest

import onnx
from networks import SPOILS, Network, clip, rounded, with_weights
from probed import ProbeTest


class Networks(ProbeTest):
    def prepare(self, seed):
        """A probe of a network, and its run on the PC."""
        network = Network(seed, 5 + 7 * seed % 36, size=8)
        self.probe(network.model())
        self.inputs((3, 8, 8), 4, seed)
        self.run_probe("p/probe.onnx", f"pc{seed}")
        return network, onnx.load(str(self.dir / "p/probe.onnx"))

    def test_spoiled_layers_are_named(self):
        for seed in range(20):
            kind = SPOILS[seed % 4]
            with self.subTest(seed=seed, kind=kind):
                network, board = self.prepare(seed)
                made, last, weights = network.spoil(kind)
                board = with_weights(board, weights)
                if kind == "clip":
                    name = re.sub(r"[/.]", "_", last)
                    high = max(self.values(f"pc{seed}", name, run).max() for run in range(4))
                    board = clip(board, last, high / 2)
                self.run_probe(board, f"b{seed}")
                result = self.find("--own", status=1, board=f"b{seed}", pc=f"pc{seed}")
                self.assertIn(result["worst_own"], network.accepted(made, last))

    def test_noise_names_none(self):
        for seed in range(20, 26):
            with self.subTest(seed=seed):
                network, board = self.prepare(seed)
                noisy = {name: rounded(value, 8) if name[0] == "w" else
                         value * network.random.normal(1, .005, value.shape).astype("f4")
                         for name, value in network.weights.items()}
                self.run_probe(with_weights(board, noisy), f"b{seed}")
                self.find("--own", status=0, board=f"b{seed}", pc=f"pc{seed}")


if __name__ == "__main__":
    unittest.main()
