"""quilmrun-compare: whether both sides had the same inputs, and recurrent models' frames."""

import json
import pathlib
import sys
import unittest

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from outputs import CompareTest


def entry(run, name="x", checksum="", sources=(), size=4):
    return {"inference": run, "input": name, "file": f"{run}_{name}.bin", "bytes": size,
            "sha256": checksum, "sources": [{"path": path, "sha256": one} for path, one in sources]}


class SameInputs(CompareTest):
    def manifest(self, folder, *files, code=0):
        tensor = {"name": "x", "dims": [1, 2], "type_code": code, "stride": 4, "size": 4}
        return self.write(f"{folder}/inputs.json", json.dumps({
            "format": "quilmrun-inputs", "version": 1, "created": "", "command": [], "options": {},
            "model": {"path": "m", "inputs": [tensor]}, "list": "l", "batch": 1, "files": files}))

    def inputs(self, *options, status=0, **named):
        return self.compare("--inputs", "a/inputs.json", "--reference-inputs", "b/inputs.json",
                            *options, status=status, **named)

    def test_by_checksum(self):
        self.outputs_of("a", {"y": [1]}, {"y": [2]}, {"y": [3]})
        self.outputs_of("b", {"y": [1]}, {"y": [2]}, {"y": [3]})
        self.manifest("a", *(entry(run, checksum=f"{run}", sources=[(f"/p/{run}.png", "")])
                             for run in range(3)))
        self.manifest("b", *(entry(run, checksum=f"{run}") for run in range(3)))
        self.assertEqual(self.inputs()["verdict"], "pass")
        self.manifest("b", *(entry(run, checksum=c, sources=[(f"/q/{c}.png", "")])
                             for run, c in enumerate("021")))
        found = self.inputs(status=1)
        self.assertEqual(found["reasons"], [
            "both sides had other inputs in 2 inferences, first in 1: x was made of 1.png and of "
            "2.png; prepare both from the same list, pair by --by-input, or allow it with "
            "--inputs-differ"])
        self.inputs("--inputs-differ")
        self.assertEqual(self.inputs("--by-input", status=1)["failed"], 2)
        self.outputs_of("c", {"y": [1]}, {"y": [3]}, {"y": [2]})
        self.inputs("--by-input", reference="c")
        # The same input twice, one that only one side has, and inputs that are not known.
        self.outputs_of("d", {"y": [1]}, {"y": [1]}, {"y": [9]})
        self.manifest("b", *(entry(run, checksum=c) for run, c in enumerate("007")))
        found = self.inputs("--by-input", reference="d", status=1)
        self.assertEqual([(run["index"], run["problem"]) for run in found["runs"]],
                         [(1, "missing in the reference"), (2, "missing in the reference"),
                          (3 + 1, "missing"), (3 + 2, "missing"), (0, "")])
        self.manifest("b", *(entry(run) for run in range(3)))
        self.inputs()
        self.manifest("a", *(entry(run, name, checksum="1") for run in range(3) for name in "xy"))
        for text, changed in [("b/inputs.json has no checksums", [
                                   entry(run, name, checksum="1" * (name == "x"))
                                   for run in range(3) for name in "xy"]),
                              ("b/inputs.json has no checksums of inference 2", [entry(0)]),
                              ("no input of the same name", [entry(0, "other")])]:
            self.manifest("b", *changed)
            self.refused(text, "a", "b", "--by-input", "--inputs", "a/inputs.json",
                         "--reference-inputs", "b/inputs.json")
        self.refused("needs the inputs.json of both", "a", "b", "--by-input")

    def test_other_types_take_other_bytes_of_the_same_pictures(self):
        self.outputs_of("a", {"y": [1]})
        self.outputs_of("b", {"y": [1]})
        self.manifest("a", entry(0, checksum="1", sources=[("/p/1.png", "7")]))
        for code, checksum, status in [(4, "7", 0), (0, "7", 1), (4, "8", 1)]:
            self.manifest("b", entry(0, checksum="2", sources=[("/q/1.png", checksum)]), code=code)
            found = self.inputs(status=status)
        self.assertIn("x was prepared of 1.png in another way, or 1.png has", found["reasons"][0])
        self.manifest("b", entry(0, checksum="2", sources=[("/q", "7"), ("/q", "7")]), code=4)
        self.inputs(status=1)

    def test_only_the_inputs_of_the_log_count(self):
        """inputs.json beside the log's files may be of another time."""
        self.outputs_of("a", {"y": [1]})
        self.outputs_of("b", {"y": [1]})
        for side in "ab":
            self.write(f"{side}/log.txt", log_text([], [("y", "[1, ]", 0, 4, 4)], 1,
                                                   files=[f"{self.dir}/in_{side}/0_x.bin"]))
            self.manifest(f"in_{side}", entry(0, checksum=side))
        self.assertIn("was made of", self.compare(status=1)["reasons"][0])
        self.manifest("in_b", {**entry(0, checksum="b"), "file": "other.bin"})
        self.compare()
        _, out, _ = self.run_companion("a", "b", "--inputs", "in_b/inputs.json")
        self.assertIn("in_b/inputs.json does not name the input files of a's log", out)


class Frames(CompareTest):
    def test_frames_that_were_not_given(self):
        """Of a recurrent model with 5 frames at most, an inference had 5 and one had 3."""
        whole = np.arange(20, dtype=float)
        undefined = np.where(np.arange(20) % 10 < 6, whole, 99)
        inputs = [("x", "[5, 2, ]", 1, 20, 20), ("t", "[1, 5, ]", 0, 20, 20)]
        names = [f"{self.dir}/full.bin", f"{self.dir}/t.bin", f"{self.dir}/x.bin",
                 f"{self.dir}/t.bin"]
        for name, size in (("x.bin", 12), ("t.bin", 20), ("full.bin", 20)):
            self.write(name, bytes(size))
        self.outputs_of("b", {"y": whole}, {"y": whole})
        for shape, axis, status in [("[2, 5, 2, ]", (), 0), ("[20, ]", (), 1),
                                    ("[2, 5, 2, ]", ("--frames-axis", "-2"), 0),
                                    ("[2, 5, 2, ]", ("--frames-axis", "0"), 1),
                                    ("[4, 5, ]", (), 1)]:
            with self.subTest(shape=shape, axis=axis):
                self.outputs_of("a", {"y": whole}, {"y": undefined})
                self.write("a/log.txt", log_text(inputs, [("y", shape, 0, 8, 80)], 2, files=names)
                           + "[INFO]  Model inputNum: 2\n")
                found = self.compare(*axis, status=status)
                self.assertEqual(found["outputs"][0]["elements"], 32 if not status else
                                 {"[4, 5, ]": 12 + 20}.get(shape, 40))
        self.outputs_of("a", {"y": undefined}, {"y": whole})
        self.assertEqual(self.compare(status=1)["failed"], 1)
        self.write("a/log.txt", log_text(inputs, [("y", "[5, 4, ]", 0, 8, 80)], 2, files=names)
                   + "[INFO]  Model inputNum: 2\n")
        self.assertIn("y: only the 3 frames that the inputs had", self.compare(status=1)["notes"][0])
        self.refused("output y has 2 dimensions", "a", "b", "--frames-axis", "2")
        self.write("a/log.txt", log_text(inputs, [("y", "[5, 5, ]", 0, 8, 80)], 2, files=names))
        self.refused("several dimensions of output y, [5, 5], may be the frames", "a", "b")


if __name__ == "__main__":
    unittest.main()
