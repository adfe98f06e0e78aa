"""quilmrun-record: what it records, and that the run is as it would be without it."""

import collections
import csv
import datetime
import hashlib
import json
import os
import pathlib
import pty
import re
import resource
import shutil
import signal
import subprocess
import unittest

from models import HostRuntimeTest, copies, floats
from scripted import SCRIPTED_RUNTIME, PLAIN, ScriptedRuntimeTest
from tool import QUILMRUN

ONLY_ASK = "mdl_get|ext_get|data_type_size|get_data_buffer"
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

    def test_calls_that_only_ask_are_counted(self):
        traced = self.run_two_groups(within=(RECORD, "-q", "-o", self.record))[2]
        record = Recording(self.record)
        names = re.findall(r"call: (\w+) \d+$", traced, re.M)
        self.assertEqual({name: row["count"] for name, row in record.facts["functions"].items()},
                         collections.Counter(names))
        self.assertEqual([call["name"] for call in record.calls],
                         [name for name in names if not re.search(ONLY_ASK, name)])
        self.assertEqual(record.facts["loop"]["begun"], 2)

    def test_where_and_what(self):
        self.run_two_groups(within=(RECORD, "-q", "-o", self.record))
        facts, system = Recording(self.record).facts, os.uname()
        where = facts["where"]
        for key, path in (("model", self.dir / "m.onnx"), ("settings", self.dir / "q.json"),
                          ("tool", pathlib.Path(QUILMRUN).resolve()),
                          ("runtime", pathlib.Path(facts["library"]))):
            content = path.read_bytes()
            self.assertEqual(where[key], {"path": str(path), "bytes": len(content),
                                          "sha256": hashlib.sha256(content).hexdigest()})
        self.assertEqual((where["name"], where["kernel"], where["cores"]),
                         (system.nodename, f"{system.sysname} {system.release}", os.cpu_count()))
        self.assertIn(system.machine, where["processor"])
        moment = datetime.datetime.strptime(where["date"], "%Y-%m-%dT%H:%M:%S%z").timestamp()
        self.assertLess(abs(moment - facts["start_us"] / 1e6), 5)
        self.assertEqual(facts["command"][1:3], ["-m", str(self.dir / "m.onnx")])

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
                          if not re.search(ONLY_ASK, name)])
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


class Space(ScriptedRuntimeTest):
    LIST = "x.bin\n" * 400
    ENDED = r"quilmrun-record: File too large: the recording ends here, after \d+ calls; the run goes on\n"

    def test_limit_on_file_sizes(self):
        """The recording ends with one line, and the run as it does without it."""
        plain = self.start_scripted(PLAIN, list_text=self.LIST)
        for size, said, status in ((300_000, self.ENDED, 0), (50_000, r".*; this run is not recorded\n", 2)):
            limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, 2 * (size,))  # pylint: disable=cell-var-from-loop
            result, out, err = self.start_scripted(PLAIN, limit=limit,
                                                   list_text=self.LIST,
                                                   within=(RECORD, "-q", "-o", "r.json"))
            self.assertEqual((result, out), (status, plain[1]))
            self.assertRegex(err, f"^{said}$")
        facts = Recording(self.dir / "r.json").facts
        self.assertEqual((facts["complete"], facts["exit_status"]), (False, 0))
        self.assertGreater(facts["dropped"], 1000)
        self.assertLess(facts["trace"]["kept"], facts["trace"]["inferences"])
        self.assertEqual(sorted(path.name for path in self.dir.glob("r.json*")), ["r.json"])

    def test_full_disk(self):
        (self.dir / "disk").mkdir()
        own = self.own_mounts("mount -t tmpfs -o size=480k none disk; touch disk/r.json.none",
                              "cp disk/* .; ls disk > left")
        status, out, err = self.start_scripted(PLAIN, list_text=self.LIST, within=(
            *own, RECORD, "-q", "-o", "disk/r.json"))
        self.assertEqual((status, out), self.start_scripted(PLAIN, list_text=self.LIST)[:2])
        self.assertRegex(err, "^" + self.ENDED.replace("File too large", "No space left on device") + "$")
        self.assertFalse(Recording(self.dir / "r.json").facts["complete"])
        self.assertEqual((self.dir / "left").read_text(), "r.json\nr.json.none\n")


class Names(ScriptedRuntimeTest):
    def run_meanwhile(self, command, *options):
        """A run during which a command is run; what is said of it."""
        status, _, err = self.start_scripted(f"run quilm_mdl_execute 1 {command}\n" + PLAIN,
                                             within=(RECORD, "-q", *options))
        self.assertEqual(status, 0)
        return err

    def test_files_that_appear_meanwhile_stay(self):
        (self.dir / "old").write_text('{"format": "quilmrun-record"}')
        os.link(self.dir / "old", self.dir / "r.json")
        err = self.run_meanwhile("cp x.bin c.csv; rm r.json; cp old r.json", "-o", "r.json", "--csv",
                                 "c.csv")
        for name, kept in (("r.json", (self.dir / "old").read_bytes()), ("c.csv", bytes(range(1, 9)))):
            self.assertEqual((self.dir / name).read_bytes(), kept)
            (beside,) = self.dir.glob(name + ".*")
            self.assertIn(f"{name} has become another's file meanwhile, so this is in {beside.name}\n", err)
            self.assertEqual(beside.stat().st_mode & 0o777, 0o666 & ~self.umask())
        self.assertEqual(Recording(next(self.dir.glob("r.json.*"))).facts["exit_status"], 0)

    @staticmethod
    def umask():
        mask = os.umask(0)
        os.umask(mask)
        return mask

    def test_own_files_are_replaced_behind_links_too(self):
        (self.dir / "there").mkdir()
        (self.dir / "r.json").symlink_to("there/r.json")
        for _ in range(2):
            self.assertEqual(self.run_meanwhile("true", "-o", "r.json", "--csv", "c.csv"), "")
        self.assertTrue((self.dir / "r.json").is_symlink())
        self.assertEqual([p.name for p in (self.dir / "there").iterdir()], ["r.json"])
        self.assertEqual([p.name for p in self.dir.glob("c.csv*")], ["c.csv"])

    def test_progress_on_a_terminal(self):
        here, there = pty.openpty()
        arguments = self.arguments("run quilm_mdl_execute 2 sleep 1.5\n" + PLAIN, list_text="x.bin\n\n" * 3)
        for options, shown in ((), r"quilmrun-record: 2 of 3 inferences, \d+\.\d a second, 1 s"), (("-q",), "x"):
            subprocess.run([RECORD, *options, "-o", "r.json", os.path.abspath(QUILMRUN), *arguments],
                           cwd=self.dir, env=dict(os.environ, LD_LIBRARY_PATH=SCRIPTED_RUNTIME),
                           stdout=subprocess.DEVNULL, stderr=there, check=True, timeout=60)
            os.write(there, b"x")
            self.assertRegex(os.read(here, 65536).decode(), shown)
        os.close(here)
        os.close(there)


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
        os.mkfifo(self.dir / "fifo")
        (self.dir / "b").symlink_to("a")
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
                ("record and table need two files, not ./a twice", "-o", "a", "--csv", "./a", "true"),
                ("record and table need two files, not $D/a twice", "-o", "a", "--csv", "b", "true"),
                ("fifo is no regular file; name another one", "-o", "fifo", "true"),
                ("/dev/null is no regular file; name another one", "--csv", "/dev/null", "true"),
                ("there is no file fifo", "--recover", "fifo"),
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
                         ["b", "fifo", "libquilm.so", "mine.json", "out", "quilmrun"])


if __name__ == "__main__":
    unittest.main()
