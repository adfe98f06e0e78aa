"""The reader of records: what quilmrun-record writes, records of version 1, and broken ones."""

import json
import pathlib
import subprocess
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from calls_file import CallsFile
from companion import COMPANIONS  # pylint: disable=unused-import  # which finds the companions
from tool import QUILMRUN, ToolTest

from quilmrun_tools.artifacts.record import read_record
from quilmrun_tools.artifacts.record_events import read_events
from quilmrun_tools.common.errors import Unreadable

RECORD = pathlib.Path(QUILMRUN).resolve().parent / "quilmrun-record"
EXECUTIONS = [9000, 300, 2000, 500, 1000, 700, 800]  # ns


def version_1():
    """A record as version 1 was, of the same executions, one an inference."""
    calls = [{"name": "quilm_mdl_get_output_data_type", "ph": "X", "ts": 1, "dur": 1,
              "args": {"result": 3}}]
    for group, duration in enumerate(EXECUTIONS):
        start = 10 + 20 * group
        calls += [{"name": "quilm_mdl_execute", "ph": "X", "ts": start, "dur": duration / 1000,
                   "args": {"result": 0, "group": group, "repetition": 0}},
                  {"name": f"group {group}", "cat": "phase", "ph": "X", "ts": start, "dur": 15,
                   "args": {"complete": True, "group": group}},
                  {"name": "device memory", "ph": "C", "ts": start, "args": {"bytes": 7 + group}}]
    return {"otherData": {"format": "quilmrun-record", "version": 1, "complete": True,
                          "library": "l", "exit_status": 0, "start_us": 5}, "traceEvents": calls}


class Records(ToolTest):
    def made(self):
        calls = CallsFile()
        calls.call("mdl_create_dataset", result=800)
        for number, duration in enumerate(EXECUTIONS):
            calls.inference(number, [duration])
        self.write("calls", calls.bytes(facts=[(b"kernel", b"Linux 9"), (b"cores", b"6")]))
        subprocess.run([RECORD, "-q", "-o", "r.json", "--recover", "calls"], cwd=self.dir, check=True)
        return self.dir / "r.json"

    def check_executions(self, record):
        self.assertEqual((record.executions, record.inferences, record.complete, record.part),
                         (7, 7, True, False))
        self.assertAlmostEqual(record.statistics["execute"].p50, 0.00075)
        self.assertEqual([(one.first_inference, one.executions, one.median_ms, one.max_ms)
                          for one in record.course.bins()],
                         [(at, 1, ns / 1e6, ns / 1e6) for at, ns in enumerate(EXECUTIONS)])
        self.assertEqual([tenth and tenth.max for tenth in record.tenths],
                         [None, 0.0003, 0.002, None, 0.0005, 0.001, None, 0.0007, 0.0008, None])
        for found, ns in zip(record.durations("execute"), sorted(EXECUTIONS[1:])):
            self.assertAlmostEqual(found / ns * 1e6, 1, delta=0.003)
        self.assertEqual(len(record.durations("execute", most=2)), 2)
        self.assertEqual(record.functions["quilm_mdl_execute"].count, 7)
        self.assertAlmostEqual(record.functions["quilm_mdl_execute"].total_ms, 0.0143)

    def test_what_the_recorder_writes(self):
        path = self.made()
        record = read_record(path)
        self.check_executions(record)
        self.assertEqual((record.version, record.where.kernel, record.where.cores, record.where.tool),
                         (2, "Linux 9", 6, record.where.tool))
        self.assertEqual((record.memory.peak_bytes, record.loop.inferences, record.trace.kept), (128, 7, 7))
        self.assertEqual((record.slowest[0][0], len(record.histograms["inference"])), (0, 7))
        self.assertEqual([sum(event.is_execution for event in events) for events in read_events(path)],
                         [0, 0, *7 * [1]])

    def test_version_1(self):
        record = read_record(self.write("r.json", json.dumps(version_1())))
        self.check_executions(record)
        self.assertEqual((record.version, record.output_types, record.loop.ms, record.memory.peak_bytes),
                         (1, [3], 0.135, 13))
        self.assertAlmostEqual(record.loop.per_second, 7e3 / 0.135)
        (events,) = read_events(self.dir / "r.json")
        self.assertEqual(sum(event.is_execution for event in events), 7)

    def test_cut_files(self):
        content = self.made().read_bytes()
        for cut in (1, 5, 700):
            record = read_record(self.write("r", content[:-cut]))
            self.assertEqual((record.complete, record.part, record.executions), (False, True, 7))
        self.assertEqual(sum(event.is_execution for events in read_events(self.write("r", content[:-5]))
                             for event in events), 6)
        with self.assertRaisesRegex(Unreadable, "cut short before its figures end"):
            read_record(self.write("r", content[:3000]))

    def test_damaged_figures(self):
        content = self.made().read_text()
        for said, old, new in (
                ("command is a number", '"command":[]', '"command":5'),
                (r"version 3, and 2 is", '"version":2', '"version":3'),
                ("where.cores is 'x'", '"cores":6', '"cores":"x"'),
                (r"course.median\[0\] is null", '"median":[', '"median":[null,'),
                ("columns of its course differ", '"median":[', '"median":[1,'),
                (r"histograms.execute\[0\] has 1 values", '"execute":[[', '"execute":[[1],['),
                ("not a record", '"format":"quilmrun-record"', '"format":"other"'),
                ("is not JSON", '"version":2', '"version":2,,')):
            self.assertIn(old, content)
            with self.subTest(said), self.assertRaisesRegex(Unreadable, said):
                read_record(self.write("r", content.replace(old, new, 1)))


if __name__ == "__main__":
    unittest.main()
