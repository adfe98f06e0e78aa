"""quilmrun-record's figures and trace of calls whose times are known."""

import json
import os
import pathlib
import resource
import subprocess
import unittest

import numpy as np

from calls_file import ENTRY, LATEST, RECORDING, START, UNFINISHED, CallsFile, number_of
from tool import QUILMRUN, ToolTest

RECORD = pathlib.Path(QUILMRUN).resolve().parent / "quilmrun-record"
CONVERT = RECORD.parent / "lib/quilmrun/record/convert"
MS = 1_000_000


class FiguresTest(ToolTest):
    def recover(self, content, *options, status=0):
        """(record.json, what is said) of a calls file."""
        self.write("calls", content)
        result = subprocess.run([RECORD, "-o", "r.json", *options, "--recover", "calls"], cwd=self.dir,
                                capture_output=True, check=False, text=True, timeout=60)
        self.assertEqual(result.returncode, status, result.stderr)
        return status == 0 and json.loads((self.dir / "r.json").read_text()), result.stderr

    def figures(self, *arguments):
        return self.recover(*arguments)[0]["otherData"]


def row(durations):
    """What the statistics say of durations in ns, by numpy."""
    ms = np.array(durations) / MS
    return {"count": len(ms), "min": ms.min(), "mean": ms.mean(),
            **{f"p{percent}": np.percentile(ms, percent) for percent in (50, 90, 95, 99)},
            "max": ms.max(), "per_second": 1000 / ms.mean(), "percentiles_within": 0}


class Known(FiguresTest):
    def check_row(self, found, durations):
        expected = row(durations)
        self.assertEqual(list(found), list(expected))
        for name, value in expected.items():
            self.assertAlmostEqual(found[name], value, delta=1e-6 * max(1, abs(value)), msg=name)

    def run_of(self):
        """Six inferences, the last of which fails; a refused allocation; calls without entry."""
        calls = CallsFile()
        calls.call("init", 3 * MS)
        calls.call("rt_get_run_mode", result=0)
        calls.call("rt_malloc", object=1, bytes=5000, after=20)
        calls.call("mdl_load_from_mem", 40 * MS, object=1, bytes=5000, after=600)
        calls.call("mdl_create_desc", result=77)
        calls.call("mdl_get_output_data_type", result=3)
        calls.call("mdl_get_output_data_type", result=1)
        calls.call("mdl_create_dataset", result=800)
        calls.call("rt_malloc", object=2, bytes=1 << 40, result=4)
        self.executions = [9000, 300, 2000, 500, 1000]
        self.staging, self.writing = [51, 53, 59, 61, 67], [71, 73, 79, 83, 89]
        for number, duration in enumerate(self.executions):
            calls.inference(number, [duration], self.staging[number], self.writing[number])
        calls.inference(5, [7777], 1000, 2000, fails=13)
        calls.call("mdl_unload", after=10)
        calls.call("rt_free", object=1, bytes=0)
        calls.call("finalize", 400)
        calls.asked("mdl_get_num_inputs", count=9, failed=2, total=900, min=50, max=200)
        return calls

    def test_small_run(self):
        calls = self.run_of()
        found = self.figures(calls.bytes(facts=[(b"command", b"q"), (b"command", b"-m")]))
        self.assertEqual([found[key] for key in ("version", "command", "library", "complete",
                                                 "exit_status", "start_us", "recorder_cost_us",
                                                 "dropped", "unfinished", "output_types")],
                         [2, ["q", "-m"], "/lib/libquilm.so", True, None, 1_700_000_000_000_000, 0.07,
                          0, None, [3, 1]])
        self.assertAlmostEqual(found["span"], (calls.now - 1000) / MS)
        # An inference takes its calls of 100 ns, and what is between them.
        whole = [9 * 100 + 5 + sum(times)
                 for times in zip(self.executions, self.staging, self.writing)]
        for name, durations in (("load", [40 * MS]), ("warm_up", [9000]),
                                ("execute", [300, 2000, 500, 1000]), ("staging", [*self.staging, 1000]),
                                ("write_outputs", self.writing), ("inference", whole)):
            with self.subTest(name):
                self.check_row(found["statistics"][name], durations)
        for name in ("execute_first", "execute_repeated"):
            self.assertEqual(set(found["statistics"][name].values()), {0, None})
        self.assertEqual(found["loop"], {"begun": 6, "inferences": 5, "ms": sum(whole) / MS,
                                         "inferences_per_second": round(5e9 / sum(whole), 3)})
        self.assertEqual(found["functions"]["quilm_mdl_execute"],
                         {"count": 6, "failed": 1, "total": 20577 / MS, "min": 0.0003, "max": 0.009})
        self.assertEqual(found["functions"]["quilm_mdl_get_num_inputs"],
                         {"count": 9, "failed": 2, "total": 0.0009, "min": 0.00005, "max": 0.0002})
        self.assertEqual(found["functions"]["quilm_rt_malloc"]["failed"], 1)
        self.assertEqual(found["functions"]["quilm_mdl_get_output_data_type"]["failed"], 0)
        self.assertEqual(found["course"]["median"], [n / MS for n in self.executions])
        self.assertEqual(found["course"]["inference"], [0, 1, 2, 3, 4])
        self.assertEqual([tenth["count"] for tenth in found["tenths"]],
                         [0, 1, 0, 1, 0, 1, 1, 0, 0, 0])
        self.assertEqual(found["memory"]["peak_bytes"], 5128)
        self.assertEqual([size for _, size in found["memory"]["course"]], [5000] + 6 * [5128] + [0])
        self.assertEqual(found["slowest"], [[at, whole[at] / MS] for at in (0, 2, 4, 3, 1)])
        self.assertEqual(found["trace"], {"inferences": 6, "kept": 6, "all_calls": False})

    def test_trace(self):
        calls = self.run_of()
        record, said = self.recover(calls.bytes())
        events = record["traceEvents"]
        spans = {event["name"]: event for event in events if "cat" in event}
        self.assertEqual(list(spans), ["start", "read model", "load", "describe", "staging",
                                       "write outputs", *(f"group {k}" for k in range(6)), "teardown"])
        # Times are in microseconds, of moments cut to 0.1 us.
        self.assertEqual([spans["read model"][key] for key in ("cat", "ts", "dur")],
                         ["copy", 3001.2, 0.6])
        self.assertEqual([spans["group 5"][key] for key in ("cat", "ph", "pid", "tid", "args")],
                         ["phase", "X", 1, 1, {"complete": False, "group": 5}])
        refused, failed = [event["args"] for event in events if "result" in event.get("args", {})]
        self.assertEqual((refused["result"], refused["bytes"]), (4, 1 << 40))
        self.assertEqual((failed["result"], failed["group"], failed["repetition"]), (13, 5, 0))
        self.assertFalse([e for e in events if "mdl_get" in e["name"] or "args" in e and
                          e["args"].get("result") in (77, 800)])
        self.assertEqual([event["args"]["bytes"] for event in events if event["ph"] == "C"],
                         [5000, 5128, 0])
        self.assertIn("\n81 calls of /lib/libquilm.so; noting one took 0.070 us\n", said)
        self.assertIn("\nexecute: all others           4    0.0003    0.0009    0.0008    0.0017    0.0018"
                      "    0.0020    0.0020   1052631.6\n", said)
        self.assertIn("\n5 inferences in 0.000 s: 277608.1 a second", said)
        # A viewer's user may look into the file: every figure and every inference has a line.
        lines = (self.dir / "r.json").read_text().splitlines()
        (line,) = [line for line in lines if '"group 3"' in line]
        self.assertTrue(line.startswith('{"name":"quilm_mdl_create_dataset"'), line)
        self.assertEqual(len(lines), 86)
        self.assertNotIn("group", json.dumps([e for e in events if e["name"] == "quilm_rt_free"]))

    def test_every_call(self):
        calls = self.run_of()
        record, _ = self.recover(calls.bytes(every_call=1), "--all-calls", "--csv", "c.csv")
        asked = [event for event in record["traceEvents"] if "data_type" in event["name"]]
        self.assertEqual([(event["cat"], event["args"]) for event in asked],
                         [("model", {"result": 3}), ("model", {"result": 1})])
        self.assertEqual({event["name"]: event["cat"] for event in record["traceEvents"]
                          if event["name"] in ("quilm_init", "quilm_rt_free", "quilm_mdl_execute",
                                               "quilm_create_data_buffer", "quilm_mdl_load_from_mem")},
                         {"quilm_init": "runtime", "quilm_rt_free": "memory",
                          "quilm_mdl_execute": "execute", "quilm_create_data_buffer": "dataset",
                          "quilm_mdl_load_from_mem": "load"})
        lines = (self.dir / "c.csv").read_text().splitlines()
        self.assertEqual(len(lines), 1 + len(calls.entries))
        self.assertEqual(lines[1], "quilm_init,1.000,3000.000,0,,,")
        self.assertEqual(lines[3], "quilm_rt_malloc,3001.120,0.100,0,5000,,")
        self.assertEqual(lines[5], "quilm_mdl_create_desc,43001.820,0.100,0x4d,,,")
        self.assertRegex(lines[16], r"^quilm_mdl_execute,\d+\.\d+,9\.000,0,,0,0$")

    def test_repetitions(self):
        calls = CallsFile()
        calls.call("mdl_create_dataset", result=800)
        for number in range(3):
            calls.inference(number, [1000 * (number + 1), 20, 30])
        found = self.figures(calls.bytes())
        for name, durations in (("execute", [20, 30, 2000, 20, 30, 3000, 20, 30]),
                                ("execute_first", [2000, 3000]), ("execute_repeated", 3 * [20, 30])):
            self.check_row(found["statistics"][name], durations)
        self.assertEqual([found["course"][key][1] for key in ("executions", "min", "median", "max")],
                         [3, 0.00002, 0.00003, 0.002])
        self.assertEqual(found["histograms"]["execute_repeated"], [[0.00002, 3], [0.00003, 3]])

    def test_cut_runs_and_files(self):
        calls = self.run_of()
        calls.call("mdl_execute", UNFINISHED)
        found = self.figures(calls.bytes(RECORDING))
        self.assertEqual((found["complete"], found["unfinished"]), (False, "quilm_mdl_execute"))
        many = CallsFile()
        many.call("mdl_create_dataset")
        for _ in range(3 * LATEST - 1):
            many.call("mdl_execute")
        whole, damaged = many.bytes(), bytearray(many.bytes())
        damaged[START + (LATEST + 40) * 64 + 52] = 99
        flushed = START + LATEST * 64
        for content, left in ((whole, 3 * LATEST), (whole[:flushed + 100 * 64], 100),
                              (whole[:flushed + 100 * 64 - 1], 99), (whole[:START + 64], 0),
                              (bytes(damaged), 40)):
            found = self.figures(content)
            self.assertEqual((found["dropped"], found["complete"]),
                             (3 * LATEST - left, left == 3 * LATEST))
            self.assertEqual(sum(row["count"] for row in found["functions"].values()), left)
        for content in (whole[:START - 1], b"quilmrun calls1" + whole[15:], b"",
                        many.bytes(flushed=0), many.bytes(flushed=4 * LATEST)):
            self.assertIn("no calls were recorded here", self.recover(content, status=2)[1])

    def test_names_that_are_no_utf_8(self):
        names = [b"\xed\xa0\x80", b"\xe0\x80\x80", b"\xf4\x90\x80\x80", b"\xc0\xaf", b"\xc3", b"\xff\xfe",
                 "ä€𝄞".encode(), b'"\\\n\x01\x7f', b"\xe2\x82", b"\xf0\x9d\x84", b"\xf4\x8f\xbf\xbf\xed\x9f\xbf"]
        found = self.figures(CallsFile().bytes(facts=[(b"command", name) for name in names],
                                               entries=np.zeros(0, ENTRY), flushed=0))
        self.assertEqual([os.fsencode(word) for word in found["command"]], names)
        self.assertEqual(found["command"][6], "ä€𝄞")


class Long(FiguresTest):
    COUNT = 210_000

    def file(self):
        """As many inferences of three calls each; the durations of the executions."""
        durations = np.random.default_rng(1).lognormal(11, 1, self.COUNT).astype("<u8")
        entries = np.zeros(3 * self.COUNT + 1, ENTRY)
        inferences = entries[1:].reshape(-1, 3)
        entries["duration"] = 100
        inferences["duration"][:, 1] = durations
        entries["start"] = np.cumsum(entries["duration"]) - entries["duration"]
        for column, function in enumerate(("mdl_create_dataset", "mdl_execute", "mdl_destroy_dataset")):
            inferences["call"][:, column] = number_of(function)
        entries["call"][0] = number_of("mdl_create_dataset")
        inferences["result"][:, 0] = inferences["object"][:, 2] = 8
        return CallsFile().bytes(entries=entries, datasets=self.COUNT + 1), durations

    def test_figures_of_all_and_a_trace_of_some(self):
        content, durations = self.file()
        record, said = self.recover(content)
        found = record["otherData"]
        execute = found["statistics"]["execute"]
        self.assertEqual((execute["count"], execute["percentiles_within"]), (self.COUNT - 1, 1 / 256))
        for percent in (50, 90, 95, 99):
            exact = np.percentile(durations[1:], percent) / MS
            self.assertAlmostEqual(execute[f"p{percent}"] / exact, 1, delta=0.001)
        self.assertIn("percentiles of more than 16384 times are within 0.4 %\n", said)
        self.assertEqual(sum(count for _, count in found["histograms"]["execute"]), self.COUNT - 1)
        middles = np.repeat(*map(np.array, zip(*found["histograms"]["execute"])))
        self.assertLess(np.abs(middles * MS / np.sort(durations[1:]) - 1).max(), 0.003)
        self.assertEqual({*found["course"]["executions"]}, {420})
        medians = np.median(durations.reshape(-1, 420), axis=1) / MS
        self.assertLess(np.abs(np.array(found["course"]["median"]) - medians).max(), 1e-6)
        slowest = np.argsort(-durations.astype(np.int64), kind="stable")
        self.assertEqual([group for group, _ in found["slowest"]], slowest[:20].tolist())
        kept = {int(event["name"][6:]) for event in record["traceEvents"]
                if event["name"].startswith("group")}
        self.assertEqual(found["trace"], {"inferences": self.COUNT, "kept": len(kept), "first": 1000,
                                          "last": 1000, "slowest": 1000, "every": 30,
                                          "all_calls": False})
        self.assertEqual(kept, {*range(1000), *range(self.COUNT - 1000, self.COUNT),
                                *range(0, self.COUNT, 30), *slowest[:1000].tolist()})

    def test_percentiles_at_the_edge_of_a_bin(self):
        calls = CallsFile()
        calls.call("mdl_create_dataset", result=800)
        calls.inference(0, [5, *10_000 * [100], *10_001 * [1000]])
        execute = self.figures(calls.bytes())["statistics"]["execute"]
        self.assertEqual([execute[key] for key in ("min", "p50", "p99", "max")],
                         [0.0001, 0.001, 0.001, 0.001])

    def test_memory_and_size(self):
        """The converter's memory does not grow with the run, nor does the record beyond its share."""
        content, _ = self.file()
        self.write("calls", content)
        if b"__asan_init" not in CONVERT.read_bytes():  # which takes memory of its own
            self.write("r.json", "")
            subprocess.run([CONVERT, "record", "calls", "0", "r.json", "", "", "q"], cwd=self.dir,
                           stdout=subprocess.DEVNULL, check=True,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_DATA,
                                                                 2 * (6 * 1024 * 1024,)))
        calls = CallsFile()
        calls.call("mdl_create_dataset", result=800)
        for number in range(1100):
            calls.inference(number, 40 * [200])
        record, _ = self.recover(calls.bytes())
        trace = record["otherData"]["trace"]
        self.assertEqual([trace[key] for key in ("first", "last", "slowest", "every")], [55, 55, 55, 3])
        self.assertLess((self.dir / "r.json").stat().st_size, 1100 * 2000)


if __name__ == "__main__":
    unittest.main()
