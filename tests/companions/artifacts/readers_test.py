"""Every reader on small files that are right, and on broken ones, each with its message."""

import json
import pathlib
import sys
import unittest

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from tool import CSV_HEADER, ToolTest

from quilmrun_tools.artifacts import (comparison, element_types, memory_report, prepared_inputs,
                                      record, run_log, values)
from quilmrun_tools.common import decoding, json_files
from quilmrun_tools.common.errors import Unreadable

NAN, INF = float("nan"), float("inf")


class ReaderTest(ToolTest):
    def refused(self, text, read, content, name="file"):
        with self.subTest(text=text), self.assertRaises(Unreadable) as raised:
            read(pathlib.Path(self.write(name, content)))
        self.assertIn(text, str(raised.exception))
        self.assertNotIn("\n", str(raised.exception))


class Logs(ReaderTest):
    WHOLE = ("[INFO]  inputPath: m.om\n[INFO]  inputPath: q.json\n"
             + log_text([("x", "[2, 3, 4, ]", 1, 64, 6 * 64 * 2)],
                        [("a.b", "[]", 3, 4, 8), ("a.b", "[-1, ]", 9, 0, 0)], 2,
                        ["1.bin", "b\udc80c"])
             + "[INFO]  Model inputNum: 1\n[INFO]  Model Iters : 5\n[WARN]  w\n[ERROR] e: 1\n"
             "[WARN]  stopped by a signal: 2 of 5 groups done\n"
             "[INFO]  ModelInfoMem Size:   12.5 KB.\n[INFO]  Load Time:  3.00 ms\n"
             "[INFO]  Bad Size:   . KB\n[INFO]  Long Size:   " + "1" * 5000 + " KB\n")

    def test_whole(self):
        log = run_log.read_log(self.write("log", self.WHOLE.encode("utf-8", "surrogateescape")))
        self.assertEqual(log.data_inputs, [run_log.Tensor("x", (2, 3, 4), 1, 64, 384)])
        self.assertEqual([tensor.name for tensor in log.buffers], ["task_buffer", "work_buffer"])
        self.assertEqual((log.batch_size, log.data_inputs[0].elements, log.data_inputs[0].type_name),
                         (2, 24, "half"))
        self.assertEqual([tensor.type_name for tensor in log.outputs], ["int32", "type 9"])
        self.assertEqual(log.output("a_b", 1), log.outputs[1])
        self.assertIsNone(log.output("a_b", 2))
        self.assertEqual((log.model_path, log.settings_path, log.planned, log.executed, log.groups),
                         ("m.om", "q.json", 5, 2, [["1.bin"], ["b\udc80c"]]))
        self.assertEqual((log.errors, log.warnings[0], log.stopped, log.succeeded),
                         (["e: 1"], "w", "2 of 5 groups", False))
        self.assertEqual(log.summary, {"ModelInfoMem Size": 12.5, "Load Time": 3.0})
        log = run_log.parse_log(self.WHOLE.replace("Model inputNum: 1", "Model inputNum: 2")
                                + "[INFO]  execute sample success\n"
                                "[INFO]  load model other.om success\n")
        self.assertEqual((log.groups, log.succeeded, log.model_path),
                         ([["1.bin", "b\udc80c"]], True, "other.om"))

    def test_broken(self):
        whole = self.WHOLE.encode("utf-8", "surrogateescape").decode("utf-8", "replace")
        for text, content in [
                ("describes no model: save what", ""), ('failed with "x y"', "[ERROR] x y\n"),
                ("logs of several runs", whole * 2),
                ("damaged: it does not describe", whole.replace("[2, 3, 4, ]", f"[{'2' * 5000}, ]")),
                ("damaged", whole.replace("[2, 3, 4, ]", "[2, 3, x, ]")),
                ("damaged", whole.replace("Output index: 1", "Output index: 2")),
                ("damaged", whole.replace("stride: 64", "stride: " + "6" * 20))]:
            self.refused(text, run_log.read_log, content)


class MemoryReports(ReaderTest):
    def test_reports(self):
        row = "1.5,2,3,4,5,6,7,8,9\n"
        found = memory_report.read_memory_report(self.write("m", CSV_HEADER + row)).columns
        self.assertEqual(found["Model Load Time(ms)"], 1.5)
        self.assertEqual(list(found.values()), [1.5, 2, 3, 4, 5, 6, 7, 8, 9])
        for content in ("", CSV_HEADER, CSV_HEADER + row * 2, CSV_HEADER + row[4:],
                        CSV_HEADER + "nan" + row[3:], CSV_HEADER + "1e999" + row[3:],
                        CSV_HEADER + "x" + row[3:], CSV_HEADER + '"' + row, b"\xff\n1\n",
                        CSV_HEADER.replace("Input", "Output") + row, "a\n1\n"):
            self.refused("was cut short; take the one", memory_report.read_memory_report, content)
        self.refused("more than the", memory_report.read_memory_report, b"x" * (2 << 20))


class Manifests(ReaderTest):
    def test_manifests(self):
        source = prepared_inputs.Source("/a/b.png", "12", 3, 4)
        files = [prepared_inputs.PreparedFile(run, name, f"{name}.bin", 8, "34", (source, source))
                 for run in (0, 1) for name in "xy"]
        tensor = run_log.Tensor("x", (1, 2), 0, 8, 8)
        whole = prepared_inputs.Manifest("now", ["a"], {"b": None}, prepared_inputs.PreparedModel(
            "m", (tensor,)), "l.txt", 2, files)
        with open(self.dir / "inputs.json", "w", encoding="utf-8") as out:
            json_files.write_json("-", whole.to_dict(), out)
        found = prepared_inputs.read_manifest(str(self.dir))
        self.assertEqual(found.path, str(self.dir / "inputs.json"))
        found.path = ""
        self.assertEqual(found, whole)
        self.assertEqual(found.sources_of(1), [source])
        self.assertEqual((found.files_of(0), found.files_of(2)), (files[:2], []))
        self.assertEqual(source.label, "b.png")
        value = json.loads((self.dir / "inputs.json").read_text())
        self.assertEqual((value["version"], value["list"]), (prepared_inputs.FORM.version, "l.txt"))
        value["files"][1]["bytes"] = "8"
        self.refused("files[1].bytes is '8', not a whole number; prepare the inputs again",
                     prepared_inputs.read_manifest, json.dumps(value))


class Comparisons(ReaderTest):
    def comparison(self, **changed):
        figures = {"elements": 4, "max_abs": 0.5, "mean_abs": 0.1, "max_rel": INF, "cosine": 1.0,
                   "snr_db": -INF, "differing": 0.25, "top1": None, "top5": None, "nan": (0, 1),
                   "inf": (2, 0)}
        place = values.Values(pathlib.Path("a/0/y.0.1.bin"), 4, "<f4", 4)
        return comparison.Comparison(**{**{
            "output": "a", "reference": "b", "verdict": "fail", "reasons": ["1 beyond"],
            "limits": comparison.Limits(0.1, 0.0), "inferences": 3, "compared": 3, "failed": 1,
            "not_compared": 1, "differences": [(0, 0.5)],
            "outputs": [comparison.OutputSummary(**figures, name="y", duplicate=0, type="float",
                                                 runs=3, failed=1, passed=False)],
            "runs": [comparison.OutputCase(**figures, index=at, output="y", duplicate=0, file=place,
                                           reference_file=None, problem=problem, passed=passed)
                     for at, (problem, passed) in enumerate([("p", False), ("", False),
                                                             ("", True)])]}, **changed})

    def test_comparisons(self):
        def text(whole):
            return json.dumps(whole.to_dict())
        whole = self.comparison()
        self.assertEqual(comparison.read_comparison(self.write("c", text(whole))), whole)
        output, (problem, beyond, good) = whole.outputs[0], whole.runs
        passing = {"verdict": "pass", "reasons": [], "not_compared": 0, "failed": 0, "runs": [good],
                   "outputs": [decoding.decode(comparison.OutputSummary, {
                       **decoding.encode(output), "failed": 0, "pass": True})]}
        comparison.read_comparison(self.write("c", text(self.comparison(**passing))))
        infinite = decoding.decode(comparison.OutputSummary, {
            **decoding.encode(passing["outputs"][0]), "max_abs": "inf"})
        low = decoding.decode(comparison.OutputSummary, {
            **decoding.encode(passing["outputs"][0]), "top1": 0.5})
        for said, changed in [
                ('its verdict is "fail", with 0 reasons', {"reasons": []}),
                ('verdict is "pass", with 1 reasons', {"verdict": "pass"}),
                ('verdict is "pass", with outputs', {"verdict": "pass", "reasons": []}),
                ("with outputs that fail", {**passing, "not_compared": 1}),
                ("with outputs that fail", {**passing, "outputs": [], "compared": 0}),
                ("its sums are not", {**passing, "failed": 1}), ("its sums", {"compared": 4}),
                ("output y passes with figures", {**passing, "outputs": [infinite]}),
                ("output y passes with figures", {**passing, "outputs": [low],
                                                  "limits": comparison.Limits(top1=0.6)}),
                ("more inferences fail than", {**passing, "runs": [beyond]}),
                ("more inferences fail than", {**passing, "runs": [problem]})]:
            self.refused(said, comparison.read_comparison, text(self.comparison(**changed)))
        for said, old, new in [("'PASS', not 'pass' or 'fail'", '"fail"', '"PASS"'),
                               ("version 99, and 2 is", '"version": 2', '"version": 99'),
                               ("version 1, and 2 is", '"version": 2', '"version": 1'),
                               ("runs[0].file.count is true", '"count": 4', '"count": true')]:
            self.refused(said, comparison.read_comparison, text(whole).replace(old, new, 1))
        self.assertEqual(str(comparison.Limits(0.1, None, 0.9, 0.5)),
                         "|difference| <= 0.1 + 0 * |reference|, cosine >= 0.9, "
                         "top-1 agreement >= 0.5")


class Records(ReaderTest):
    def test_damaged(self):
        head = '{"otherData": {"format": "quilmrun-record", "version": 1'
        end = '}, "traceEvents": [{"name": "quilm_a", "ph": "X", "ts": 5, "dur": 2}]}'
        found = record.read_record(self.write("r", head + ', "later": [1]' + end))
        self.assertEqual((list(found.functions), found.functions["quilm_a"].total_ms),
                         (["quilm_a"], 0.002))
        for text, content in [
                ("command is a number, not a list", head + ', "command": 5' + end),
                ("nested too deeply", "[" * 100_000), ("version 3, and 2", head[:-1] + "3" + end),
                ("not a record", '{"otherData": {}}'), ("not a record", "5"),
                ("statistics.load.count is missing", head + ', "statistics": {"load": {}}' + end),
                ("[0].ts is 'x', not a number", head + end.replace("5", '"x"')),
                ("is a number, not a list", head + '}, "traceEvents": 1}')]:
            self.refused(text, record.read_record, content)


class Arrays(ReaderTest):
    def header(self, shape, descr="'<f4'", order="False"):
        text = f"{{'descr': {descr}, 'fortran_order': {order}, 'shape': {shape}, }}"
        text += " " * (-(len(text) + 11) % 64) + "\n"
        return b"\x93NUMPY\x01\x00" + len(text).to_bytes(2, "little") + text.encode()

    def test_headers(self):
        whole = np.arange(24, dtype="<i2").reshape(4, 3, 2)
        np.save(self.dir / "a.npy", whole)
        found = values.read_array_file(self.dir / "a.npy")
        self.assertEqual((found.shape, found.type, found.size), ((4, 3, 2), "<i2", 24))
        reader = values.Reader(5)
        for at, row in enumerate(whole):
            np.testing.assert_array_equal(reader.whole(found.part(at, 4)), row.ravel())
        for text, content in [
                ("no array of numbers", b""), ("no array", b"\x93NUMPY\x01\x00"),
                ("no array", self.header("(-1,)") + bytes(64)),
                ("no array", self.header("(2,)") + bytes(7)),
                ("no array", self.header("(9" + "9" * 3000 + ",)")),
                ("no array", self.header("(" * 3000)), ("no array", self.header("(1.5,)")),
                ("no array", self.header("(2,)").replace(b"NUMPY\x01", b"NUMPY\x03") + bytes(64)),
                ("elements of the type complex", self.header("(1,)", "'<c8'") + bytes(64)),
                ("elements of the type", self.header("(1,)", "[('a', '<f4')]") + bytes(64)),
                ("elements of the type", self.header("(1,)", "'<f16'") + bytes(64)),
                ("not in C order", self.header("(2, 2)", order="True") + bytes(64))]:
            self.refused(text, values.read_array_file, content, "a.npy")
        column = values.read_array_file(pathlib.Path(self.write(
            "b.npy", self.header("(2, 1)", "'>f8'", order="True") + np.array([1., 2], ">f8").tobytes())))
        np.testing.assert_array_equal(reader.whole(column.part(1, 2)), [2.])

    def test_values(self):
        path = pathlib.Path(self.write("v.bin", np.array([1, 0x3e00, 2**24, 7], "<f4").tobytes() + b"xy"))
        dump = values.of_dump(path, element_types.HALF_BITS)
        self.assertEqual((dump.count, dump.bytes, dump.cut_short), (4, 18, True))
        self.assertFalse(dump.section(0, 4).cut_short)
        np.testing.assert_array_equal(values.Reader(8).whole(dump.section(1, 1)), [1.5])
        for text, wrong in [("does not hold half floats", dump),
                            ("is shorter than", values.Values(path, 4, "<f4", 5)),
                            ("is shorter than", values.Values(path, 100, "<f4", 1)),
                            ("no type of real numbers", values.Values(path, 0, "O", 1)),
                            ("Invalid argument", values.Values(path, -4, "<f4", 1))]:
            with self.subTest(text=text), self.assertRaisesRegex(Unreadable, text):
                values.Reader(2).whole(wrong)
        whole = np.array([-1, 2**31 - 1, 5], "<i4")
        path = pathlib.Path(self.write("i.bin", whole.tobytes()))
        np.testing.assert_array_equal(values.Reader(2).whole(values.of_dump(path, "<i4")), whole)
        self.assertEqual([one.stored_as for one in element_types.ELEMENT_TYPES.values()],
                         ["<f4", "half bits", "<f4", "<i4", "<f4", "<f4", "<f4"])


if __name__ == "__main__":
    unittest.main()
