"""quilmrun-record: what it records, and that the run is as it would be without it."""

import csv
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import unittest

from models import HostRuntimeTest, copies, floats
from scripted import SCRIPTED_RUNTIME, PLAIN, ScriptedRuntimeTest
from tool import QUILMRUN

RECORD = str(pathlib.Path(QUILMRUN).resolve().parent / "quilmrun-record")


class Recording:
    """A record.json, read."""

    def __init__(self, path):
        whole = json.loads(path.read_text())
        self.facts, self.events = whole["otherData"], whole["traceEvents"]
        self.phases = [e for e in self.events if e.get("cat") == "phase"]
        self.copies = [e for e in self.events if e.get("cat") == "copy"]
        self.calls = [e for e in self.events if e["name"].startswith("quilm_")]

    def executions(self):
        return [e for e in self.calls if e["name"] == "quilm_mdl_execute"]

    def counts(self):
        return {key: row["count"] for key, row in self.facts["statistics"].items()}


class WholeRuns(HostRuntimeTest):
    def setUp(self):
        super().setUp()
        for name in "ab":
            self.write(name, floats(1, 2, 3))
        self.record = self.dir / "my \"record\".json"

    def run_two_groups(self, *options, within=()):
        return self.run_model(copies({"x": [1, 3], "y": [3]}), "a\nb\nb\na\n", *options,
                              settings={"trace": True}, within=within)

    def test_every_call_and_nothing_else_changed(self):
        plain, files = self.run_two_groups("-p", "1"), self.outputs()
        within = (RECORD, "-o", self.record, "--csv", self.dir / "calls.csv", "--all-calls")
        status, out, err = self.run_two_groups("-p", "1", within=within)
        err, table = err.split("\n\n", 1)
        self.assertEqual((status, out, err + "\n"), plain)
        self.assertEqual({name: self.outputs()[name] for name in files}, files)
        self.assertIn("execute: all others          41 ", table)

        record = Recording(self.record)
        traced = re.findall(r"call: (\w+) \d+$", err, re.M)
        self.assertEqual([call["name"] for call in record.calls], traced)
        self.assertEqual([(e["args"]["group"], e["args"]["repetition"]) for e in record.executions()],
                         [(g, r) for g in range(2) for r in range(21)])
        self.assertEqual(record.counts(), {
            "load": 1, "warm_up": 1, "execute": 41, "execute_first": 1, "execute_repeated": 40,
            "staging": 4, "write_outputs": 2, "inference": 2})
        self.assertEqual((record.facts["complete"], record.facts["exit_status"]), (True, 0))
        self.assertEqual(record.facts["library"], str(pathlib.Path(RECORD).parent / "libquilm.so"))
        memory = [e["args"]["bytes"] for e in record.events if e["ph"] == "C"]
        self.assertEqual((memory[0], memory[-1]), ((self.dir / "m.onnx").stat().st_size, 0))
        with open(self.dir / "calls.csv", newline="") as table:
            rows = list(csv.DictReader(table))
        self.assertEqual([row["function"] for row in rows], traced)

    def test_spans_enclose_calls(self):
        self.run_two_groups(within=(RECORD, "-o", self.record, "-q", "--all-calls"))
        record = Recording(self.record)
        self.assertEqual([e["name"] for e in record.phases],
                         ["start", "load", "describe", "group 0", "group 1", "teardown"])
        self.assertEqual([e["name"] for e in record.copies],
                         ["read model"] + 2 * (["staging"] * 2 + ["write outputs"]))
        for span in record.phases:
            first, last = span["ts"], span["ts"] + span["dur"]
            for call in record.calls:
                inside = first <= call["ts"] + 5e-4 and call["ts"] + call["dur"] <= last + 2e-3
                outside = call["ts"] + call["dur"] <= first + 2e-3 or call["ts"] >= last - 2e-3
                self.assertTrue(inside or outside, (span, call))
                self.assertEqual(inside and "group" in span["name"],
                                 inside and call["args"].get("group") == span["args"].get("group", -1))

    def test_failed_run(self):
        self.write("a", b"")
        status, *_ = self.run_two_groups(within=(RECORD, "-o", self.record))
        record = Recording(self.record)
        self.assertEqual((status, record.facts["exit_status"], record.facts["complete"]), (1, 1, True))
        self.assertEqual(record.counts()["inference"], 0)

    def test_interrupt_key(self):
        self.write("m.onnx", copies({"x": [1, 3]}))
        self.write("list.txt", "a\n" * 20000)
        self.write("q.json", "{}")
        process = subprocess.Popen(
            [RECORD, "-o", self.record, os.path.abspath(QUILMRUN), "-m", "m.onnx", "-i", "list.txt",
             "-j", "q.json", "-o", "out"], cwd=self.dir, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, start_new_session=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        while "dump data success" not in process.stdout.readline():
            self.assertIsNone(process.poll())
        os.killpg(process.pid, signal.SIGINT)
        out, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 1, err)
        (done,) = re.findall(r"stopped by a signal: (\d+) of 20000 groups done\n", out)
        record = Recording(self.record)
        self.assertEqual((len(record.executions()), record.facts["complete"]), (int(done), True))


class Crashes(ScriptedRuntimeTest):
    def test_crash_of_the_library(self):
        status, _, err = self.start_scripted(f"signal quilm_mdl_execute 2 {signal.SIGABRT:d}\n" + PLAIN,
                                        list_text="x.bin\n" * 4, within=(RECORD, "-o", "r.json"))
        self.assertEqual(status, -signal.SIGABRT)
        self.assertIn("the run was cut short", err)
        record = Recording(self.dir / "r.json")
        self.assertEqual(record.facts["library"], os.path.join(SCRIPTED_RUNTIME, "libquilm.so"))
        self.assertEqual((record.facts["complete"], record.facts["exit_status"]),
                         (False, 128 + signal.SIGABRT))
        self.assertEqual([call["name"] for call in record.calls],
                         [name for name in re.findall(r"^quilm_\w+", self.calls(), re.M)
                          if not re.search("mdl_get|ext_get|data_type_size|get_data_buffer", name)])
        self.assertEqual(record.calls[-1]["args"], {"unfinished": True, "group": 1, "repetition": 0})
        self.assertEqual(record.counts()["inference"], 1)
        self.assertEqual(sorted(p.name for p in self.dir.glob("r.json*")), ["r.json"])

    def test_recorder_is_killed_too(self):
        killed, *_ = self.start_scripted("run quilm_mdl_execute 2 kill -KILL $(ps -o ppid= $PPID) $PPID\n" +
                                    PLAIN, list_text="x.bin\n" * 4, within=(RECORD, "-o", "r.json"))
        self.assertEqual(killed, -signal.SIGKILL)
        (left,) = self.dir.glob("r.json.*")
        subprocess.run([RECORD, "-q", "-o", self.dir / "r.json", "--recover", left], check=True)
        record = Recording(self.dir / "r.json")
        self.assertEqual((record.facts["complete"], record.facts["exit_status"]), (False, None))
        self.assertEqual(record.calls[-1]["args"]["group"], 1)
        self.assertFalse(left.exists())

    def test_exceptions_pass_through(self):
        script = "throw quilm_mdl_execute 1 error\n" + PLAIN
        plain = self.start_scripted(script)
        recorded = self.start_scripted(script, within=(RECORD, "-q"))
        self.assertEqual(recorded[:2], plain[:2])
        self.assertEqual(Recording(self.dir / "record.json").calls[-1]["name"], "quilm_finalize")


class CommandLine(HostRuntimeTest):
    def test_manual_has_the_options_that_help_names(self):
        shown = subprocess.run([RECORD, "--help"], capture_output=True, check=True, text=True).stdout
        page = pathlib.Path(__file__).parents[1] / "docs/quilmrun-record.1.in"
        self.assertEqual(set(re.findall(r"(?:Fl|,) -([a-z-]+)", page.read_text())),
                         set(re.findall(r"--([a-z-]+)", shown)))

    def check(self, message, *arguments, **environment):
        result = subprocess.run([RECORD, *map(str, arguments)], cwd=self.dir, text=True,
                                capture_output=True, check=False,
                                env=dict(os.environ, **environment))
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertEqual(result.stderr.replace(str(self.dir), "$D"), f"quilmrun-record: {message}\n")

    def test_misuse(self):
        self.write("mine.json", '{"traceEvents": []}')
        alone = shutil.copy(QUILMRUN, self.dir)
        for message, *arguments in (
                ("what is to be run? Try: quilmrun-record quilmrun -m model ...",),
                ("there is no option -x; see quilmrun-record --help", "-x"),
                ("--csv takes a file name; see quilmrun-record --help", "--csv"),
                ("there is no program nothing; give the path of quilmrun", "nothing"),
                ("mine.json exists and is no record; remove it or name another file",
                 "-o", "mine.json", "true"),
                ("mine.json exists and is no record; remove it or name another file",
                 "--csv", "mine.json", "true"),
                ("out is a directory; name a file", "-o", "out", "true"),
                ("cannot write to no/such; name a file elsewhere", "-o", "no/such/record.json", "true"),
                ("record and table need two files, not a twice", "-o", "a", "--csv", "a", "true"),
                ("--recover runs nothing; leave the command out", "--recover", "mine.json", "true"),
                ("there is no file none", "--recover", "none"),
                ("the program did not load libquilm.so", "true"),
                ("there is no libquilm.so where the tool looks; name its directory in "
                 "LD_LIBRARY_PATH", alone)):
            with self.subTest(message=message):
                self.check(message, *arguments)
        self.check("mine.json: no calls were recorded here\n"
                   "quilmrun-record: the record could not be made from mine.json", "--recover",
                   "mine.json")
        self.write("libquilm.so", "no library")
        self.check("$D/libquilm.so: file too short", alone)
        self.assertEqual((self.dir / "mine.json").read_text(), '{"traceEvents": []}')
        self.assertEqual(sorted(p.name for p in self.dir.iterdir()),
                         ["libquilm.so", "mine.json", "out", "quilmrun"])


if __name__ == "__main__":
    unittest.main()
