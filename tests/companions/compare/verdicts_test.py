"""quilmrun-compare: what passes and what does not."""

import json
import pathlib
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import CompareTest


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


if __name__ == "__main__":
    unittest.main()
