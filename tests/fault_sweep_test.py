"""Fails each runtime call of a run in turn and checks what becomes of the run."""

import json
import re
import shutil
import unittest

from fault_table import Run, calls
from models import HostRuntimeTest, copies, floats
from tool import BUILD


class FaultSweep(HostRuntimeTest):
    def run_with(self, settings, *options):
        """(status, [ERROR] lines, what the host runtime said, output files)"""
        shutil.rmtree(self.dir / "out")
        (self.dir / "out").mkdir()
        self.write("q.json", json.dumps(settings))
        status, out, err = self.run_tool("-m", self.dir / "m.onnx", "-i", self.dir / "list.txt",
                                         "-j", self.dir / "q.json", "-o", "out", *options,
                                         library=str(BUILD / "host_identity"))
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

    def test_recurrent_model_with_rpn_input_executed_repeatedly(self):
        self.write("m.onnx", copies({"frames": [4, 1, 3], "marks": [1, 4], "r": [1, 4]},
                                    properties={"quilm.net_type": "2"}))
        for name in ("frames", "marks"):
            self.write(name, floats(*range(12 if name == "frames" else 4)))
        self.write("rpn", "1 2 3 4")
        self.write("list.txt", "frames\nmarks\n" * 2)
        sizes = {"frames": 128, "marks": 32, "r": 32}
        self.sweep(Run(sizes, {name + "'": size for name, size in sizes.items()}, groups=2,
                       executions=21), "-r", "rpn", "-p", "1")


if __name__ == "__main__":
    unittest.main()
