"""Fails each runtime call of three typical runs in turn and checks what becomes of the run."""

import json
import pathlib
import re
import shutil
import unittest

from onnx import helper

from fault_table import PROCESS, Run, calls
from models import HostRuntimeTest, floats, model, tensor

EXAMPLES = pathlib.Path(__file__).parent.parent / "examples"


class FaultSweep(HostRuntimeTest):
    def copy_example(self, name, model_name, lines):
        """Puts the model at m.onnx and a list of `lines` beside the example's data."""
        shutil.copytree(EXAMPLES / name, self.dir, dirs_exist_ok=True)
        (self.dir / model_name).rename(self.dir / "m.onnx")
        self.write("list.txt", "\n".join(lines))

    def run_with(self, settings, *options):
        """(status, [ERROR] lines, what the host runtime said, output files)"""
        shutil.rmtree(self.dir / "out")
        (self.dir / "out").mkdir()
        self.write("q.json", json.dumps(settings))
        status, out, err = self.run_tool("-m", self.dir / "m.onnx", "-i", self.dir / "list.txt",
                                         "-j", self.dir / "q.json", "-o", "out", *options)
        if "end to finalize quilm\n" not in out:
            self.fail(f"the run did not end: {status}\n{out}\n{err}")
        self.csv()
        return (status, re.findall(r"^\[ERROR\] (.*)$", out, re.M),
                [line.removeprefix("host runtime: ") for line in err.splitlines()], self.outputs())

    def expected_files(self, call, reference):
        files = {}
        for name, content in reference.items():
            if call.group is not None and int(name.split("/")[0]) >= call.group:
                continue
            if call.without is not None and name.startswith(call.without):
                continue
            files[name.replace(*call.renamed) if call.renamed else name] = content
        return files

    def sweep(self, run, *options):
        run.model_size = (self.dir / "m.onnx").stat().st_size
        table = list(calls(run))
        status, errors, trace, reference = self.run_with({"trace": True}, *options)
        self.assertEqual((status, errors), (0, []))
        self.assertEqual(len(reference), 2 * run.groups * len(run.outputs))
        traced = [line.removeprefix("call: ").split() for line in trace]
        self.assertEqual([call.function for call in table], [function for function, _ in traced])
        for call, (function, count) in zip(table, traced):
            with self.subTest(function=function, call=count):
                fault = {"function": function, "call": int(count), "code": call.code}
                status, errors, said, files = self.run_with({"faults": [fault]}, *options)
                self.assertEqual((status, errors, said),
                                 (call.status, [*call.errors], [*call.explained]))
                expected = self.expected_files(call, reference)
                if call.differs is not None:
                    files = {name: expected.get(name) if name.startswith(call.differs) else content
                             for name, content in files.items()}
                self.assertEqual(files, expected)
        print(f"seen: {len(table)} calls failed in turn")

    def test_several_groups_executed_repeatedly(self):
        self.copy_example("digits", "digits.onnx", [
            f"images/{name}.bin" for name in ("00_label0", "02_label1", "04_label2")])
        self.sweep(Run({"image": 256}, {"probabilities": 64}, groups=3, executions=21), "-p", "1")

    def test_two_inputs_and_an_rpn_file(self):
        shape = [1, 4]
        self.write("m.onnx", model(
            [helper.make_node("Add", ["a", "b"], ["s"]), helper.make_node("Add", ["s", "r"], ["y"])],
            [tensor(name, shape) for name in "abr"], [tensor(name, shape) for name in "ys"]))
        for name in ("a0", "b0", "a1", "b1"):
            self.write(name, floats(*name.encode() * 2))
        self.write("rpn", "1 2 3 4")
        self.write("list.txt", "a0\nb0\na1\nb1\n")
        self.sweep(Run({"a": 32, "b": 32, "r": 32}, {"y": 32, "s": 32}, groups=2, rpn=True),
                   "-r", "rpn")

    def test_recurrent_model_with_named_entries(self):
        self.copy_example("ecg", "ecg.onnx", [
            "marks:data/2_marks_64.bin", "frames:data/2_frames_64.bin",
            "frames:data/3_frames_120.bin", "marks:data/3_marks_120.bin"])
        misnamed = ("failed to get file $D/marks:$D/data/2_marks_64.bin",
                    "get pic device buffer failed", "CreateInputBuf failed", *PROCESS)
        self.sweep(Run({"frames": 8192, "marks": 1024}, {"prediction": 1024}, groups=2,
                       recurrent=True, misnamed=misnamed))


if __name__ == "__main__":
    unittest.main()
