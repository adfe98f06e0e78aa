"""Runs on boards of this machine: the same results as a run without them, whatever befalls some."""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from companion import COMPANIONS, CompanionTest  # noqa: E402
from scripted import SCRIPTED_RUNTIME, TASK_AND_WORK  # noqa: E402
from tool import BUILD, QUILMRUN  # noqa: E402
from companions.boards.loopback import Boards, SlowProxy, descendants  # noqa: E402
from quilmrun_tools.artifacts.record import read_record  # noqa: E402

EXAMPLES = COMPANIONS.parent / "examples"
TOOL = os.path.abspath(QUILMRUN)
NAMES = ("good", "other", "third", "fourth")

# The tool of a board that has a fault by its name.
FAULTY_TOOL = f"""#!/bin/sh
case $BOARD in
  hangs) export LD_LIBRARY_PATH='{BUILD}/scripted'; exec '{TOOL}' "$@" -j "$TEST/hangs.cfg" ;;
  fails) export LD_LIBRARY_PATH='{BUILD}/scripted'; exec '{TOOL}' "$@" -j "$TEST/fails.cfg" ;;
esac
sleep "${{PAUSE:-0}}"
exec '{TOOL}' "$@"
"""


class BoardsTest(CompanionTest):
    """Four boards for all tests; each test has folders of its own."""

    name = "quilmrun-boards"

    @classmethod
    def setUpClass(cls):
        cls.root = pathlib.Path(tempfile.mkdtemp(prefix="quilmrun_boards_"))
        cls.addClassCleanup(shutil.rmtree, cls.root, ignore_errors=True)
        cls.boards = Boards(cls.root / "boards", NAMES)
        cls.addClassCleanup(cls.boards.stop)

    def setUp(self):
        super().setUp()
        (self.dir / "out").rmdir()
        self.write("quilm.json", "{}")

    def digits(self, count):
        """A list of so many digits in the test's folder."""
        (self.dir / "images").symlink_to(EXAMPLES / "digits/images")
        names = (EXAMPLES / "digits/list.txt").read_text().split()
        self.write("list.txt", "".join(names[at % 20] + "\n" for at in range(count)))
        return ["-m", str(EXAMPLES / "digits/digits.onnx"), "-i", "list.txt", "-j", "quilm.json"]

    def command(self, *options, hosts=NAMES, boards=None, tool=TOOL, run=(),
                library=BUILD):
        boards = boards or self.boards
        return [str(COMPANIONS / self.name), *(word for host in hosts for word in ("-H", host)),
                "--ssh-config", str(boards.config), "--remote-dir", str(boards.room),
                "--remote-library-path", str(library), *map(str, options), "--", tool, *run, "-o",
                "out"]

    def start(self, *options, **named):
        return subprocess.Popen(self.command(*options, **named), cwd=self.dir,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def run_boards(self, *options, **named):
        """(status, standard output, standard error), as bytes."""
        result = subprocess.run(self.command(*options, **named), cwd=self.dir, check=False,
                                capture_output=True, timeout=120)
        return result.returncode, result.stdout, result.stderr

    def local(self, run, out="local", library=None):
        """(status, standard output) of the same run here, with its outputs in another folder."""
        (self.dir / out).mkdir()
        environment = dict(os.environ, **({"LD_LIBRARY_PATH": library} if library else {}))
        result = subprocess.run([TOOL, *run, "-o", out], cwd=self.dir, check=False, env=environment,
                                capture_output=True, timeout=120)
        return result.returncode, result.stdout

    def results(self):
        return json.loads((self.dir / "out/boards.json").read_bytes())

    def check_same(self, folder="out", other="local"):
        """All outputs are those of the run here."""
        self.assertEqual({name: content for name, content in self.outputs(folder).items()
                          if re.match(r"\d+/", name)}, self.outputs(other))

    def check_nothing_left(self, boards=None):
        """No folder on a board, and no process of a run."""
        for _ in range(150):
            left, running = os.listdir((boards or self.boards).room), self.running()
            if not left and not running:
                return
            time.sleep(0.1)
        self.fail(f"left: {left}, {running}")

    def running(self, name=b"quilmrun-"):
        """The processes that work on or for a board of this test."""
        mine = descendants(os.getpid()) if not name else [
            int(path.parent.name) for path in pathlib.Path("/proc").glob("[0-9]*/cmdline")]
        found = []
        for pid in mine:
            try:
                words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()
            except (FileNotFoundError, ProcessLookupError):
                continue
            if str(self.boards.root).encode() in words and name in words:
                found.append(pid)
        return found

    def wait_for(self, condition, process):
        for _ in range(600):
            if condition():
                return
            self.assertIsNone(process.poll(), "the run ended too early")
            time.sleep(0.05)
        self.fail("waited in vain")

    def receipts(self):
        return len(list((self.dir / "out").glob(".quilmrun-boards/parts/*/receipt.json")))


class Results(BoardsTest):
    def test_manual(self):
        self.check_manual()

    def test_equal_to_one_run_here(self):
        run = self.digits(2000)
        local = self.local(run)
        status, out, errors = self.run_boards(run=run)
        self.assertEqual((status, errors), (0, b""))
        self.assertEqual(out, local[1])
        self.assertEqual((self.dir / "out/log.txt").read_bytes(), out)
        self.check_same()
        self.csv()
        results = self.results()
        self.assertEqual([part["first"] for part in results["parts"]], [*range(0, 2000, 125)])
        self.assertEqual(sum(board["inferences"] for board in results["boards"]), 2000)
        self.assertTrue(all(board["difference"] for board in results["boards"]))
        for part in results["parts"]:
            text = out[part["log_offset"]:part["log_offset"] + part["log_bytes"]]
            self.assertEqual(text.count(b"dump data success"), 125)
        self.check_nothing_left()
        # Made by quilmrun-boards and finished, so that the next run may replace it.
        status, again, _ = self.run_boards("--resume", run=run)
        self.assertEqual((status, again), (0, out))
        self.write("list.txt", "images/00_label0.bin\n")
        self.assertEqual(self.run_boards("--without-text", hosts=NAMES[:1], run=run)[0], 0)
        self.assertEqual([re.sub(r".*\.", "", name) for name in self.outputs() if "/" in name
                          and not name.startswith(".")], ["bin"])

    def test_hostile_names(self):
        folder = os.fsencode(self.dir) + b"/-a b'\"\n\xff;$(touch x)\\"
        os.makedirs(folder + b"/in")
        names = [b"-r", b"a b'\"\xfe$HOME", b"c:d.bin", b"missing"]
        for at, name in enumerate(names[:3]):
            shutil.copy(EXAMPLES / f"digits/images/0{at}_label{at // 2}.bin", folder + b"/in/" + name)
        shutil.copy(EXAMPLES / "digits/digits.onnx", folder + b"/-m odel")
        pathlib.Path(os.fsdecode(folder + b"/l ist")).write_bytes(
            b"".join(b"in/" + name + b"\n" for name in names))
        run = [os.fsdecode(folder + name) for name in (b"/-m odel", b"/l ist")]
        run = ["-m", run[0], "-i", run[1], "-j", "quilm.json"]
        local = self.local(run)
        status, out, _ = self.run_boards("--part", 4, hosts=NAMES[:2], run=run)
        self.assertEqual((status, out), local)  # which failed for the file that is missing
        self.assertEqual(status, 1)
        names.pop()
        pathlib.Path(run[3]).write_bytes(b"".join(b"in/" + name + b"\n" for name in names))
        shutil.rmtree(self.dir / "out")
        local = self.local(run, "again")
        self.assertEqual(self.run_boards("--part", 1, hosts=NAMES[:2], run=run)[:2], local)
        self.check_same(other="again")
        self.assertFalse((self.dir / "x").exists())
        self.check_nothing_left()

    def test_options_and_names_of_inputs(self):
        detection = EXAMPLES / "detection"
        self.write("list.txt", "pixels.bin\n" * 3)
        shutil.copy(detection / "coins.bin", self.dir / "pixels.bin")
        name, model, rpn = (detection / "runs.txt").read_text().split()[:3]
        self.assertTrue(name)
        run = ["-m", str(detection / model), "-i", "list.txt", "-j", "quilm.json", "-r",
               str(detection / rpn), "-p", "1", "-t", "7x", "-b", "1"]
        local = self.local(run)
        status, out, _ = self.run_boards("--part", 2, hosts=NAMES[:2], run=run)
        self.assertEqual((status, self.mask(out.decode())), (local[0], self.mask(local[1].decode())))
        self.check_same()

    def test_a_reset_batch_size_is_carried_on(self):
        self.write("m.om", "model")
        self.write("four.bin", bytes(range(32)))
        self.write("two.bin", bytes(range(16)))
        self.write("script.cfg", "input x 4 8 4 2 4\n" + TASK_AND_WORK + "output y 4 8 4 2 4\n")
        self.write("list.txt", "four.bin\n" * 3 + "two.bin\n" * 5)
        run = ["-m", "m.om", "-i", "list.txt", "-j", "script.cfg", "-b", "4"]
        local = self.local(run, library=SCRIPTED_RUNTIME)
        self.assertEqual(local[0], 0)
        status, out, errors = self.run_boards("--part", 2, hosts=NAMES[:2], run=run,
                                              library=SCRIPTED_RUNTIME)
        self.assertEqual((status, out), local)
        self.assertIn(b"all from 2 on are run by one board", errors)
        self.assertEqual([(part["first"], part["inferences"]) for part in self.results()["parts"]],
                         [(0, 2), (2, 6)])
        self.check_same()

    def test_a_fault_of_the_run(self):
        run = self.digits(40)
        self.write("list.txt", "images/00_label0.bin\n" * 25 + "none.bin\n" * 5)
        local = self.local(run)
        status, out, errors = self.run_boards("--part", 10, hosts=NAMES[:2], run=run)
        self.assertEqual((status, out), local)
        self.assertIn(b"10 of 30 inferences are missing: failed to get file ", errors)
        self.assertLess(sum(len(part["tries"]) for part in self.results()["parts"]), 6)
        self.check_nothing_left()
        # Nobody could tell what the model takes; later somebody can.
        shutil.rmtree(self.dir / "out")
        self.write("list.txt", "images/00_label0.bin\n")
        status, _, errors = self.run_boards("--remote-tool", "/none", hosts=NAMES[:1], run=run)
        self.assertEqual(status, 1)
        self.assertRegex(errors, b"nothing was run: .*; --resume goes on")
        self.assertEqual(self.run_boards("--resume", hosts=NAMES[:1], run=run)[0], 0)
        self.assertEqual(len(list(self.dir.glob("out/0/*"))), 2)


class Kinds(BoardsTest):
    """Boards that are made otherwise."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        names, environments = ["good", "busybox", "arm"], {}
        for name in names[1:]:
            commands = cls.root / name
            commands.mkdir()
            environments[name] = {"PATH": f"{commands}:/usr/bin:/bin"}
        (cls.root / "arm/uname").write_text("#!/bin/sh\necho aarch64\n")
        (cls.root / "arm/uname").chmod(0o755)
        if shutil.which("busybox"):
            # Nothing else is found there but what a small board has.
            environments["busybox"] = {"PATH": str(cls.root / "busybox")}
            for command in subprocess.run(["busybox", "--list"], check=True, capture_output=True,
                                          text=True).stdout.split():
                (cls.root / "busybox" / command).symlink_to(shutil.which("busybox"))
        else:
            print("skipped: a board with busybox, which is not installed")
        cls.kinds = Boards(cls.root / "kinds", names, environments)
        cls.addClassCleanup(cls.kinds.stop)

    def test_small_board(self):
        run = self.digits(20)
        local = self.local(run)
        status, out, errors = self.run_boards(hosts=["busybox"], boards=self.kinds, run=run)
        self.assertEqual((status, out, errors), (*local, b""))
        self.check_same()
        self.check_nothing_left(self.kinds)

    def test_tool_of_another_processor(self):
        run = self.digits(2)
        self.write("package/q/bin/quilmrun", f"#!/bin/sh\necho arm >> '{self.dir}/used'\n"
                   f'exec {TOOL} "$@"\n')
        (self.dir / "package/q/bin/quilmrun").chmod(0o755)
        package = self.dir / "quilmrun-1-arm64.tar.gz"
        subprocess.run(["tar", "czf", package, "-C", self.dir / "package", "q"], check=True)
        status, _, errors = self.run_boards("--tool", TOOL, hosts=["arm"], boards=self.kinds, run=run)
        self.assertEqual(status, 1)
        self.assertIn(b"there is no tool for aarch64", errors)
        shutil.rmtree(self.dir / "out")
        status, _, errors = self.run_boards("--tool", TOOL, "--tool", package, hosts=["arm", "good"],
                                            boards=self.kinds, run=run)
        self.assertEqual((status, errors), (0, b""))
        self.assertEqual({board["name"]: board["processor"] for board in self.results()["boards"]
                          if board["parts"]}.get("arm", "aarch64"), "aarch64")
        self.assertTrue((self.dir / "used").exists())

    def test_check(self):
        run = self.digits(1)[:2] + ["-j", "quilm.json"]
        command = self.command("--check", hosts=["good", "arm", "none"], boards=self.kinds, run=run)
        with open(self.kinds.config, "a", encoding="utf-8") as config:
            config.write("Host none\n  HostName 127.0.0.1\n  Port 1\n")
        result = subprocess.run(command[:-2], cwd=self.dir, check=False, capture_output=True,
                                text=True, timeout=60)
        lines = result.stdout.splitlines()
        self.assertEqual((result.returncode, len(lines)), (1, 3), result.stderr)
        self.assertRegex(lines[0], r"^good: fit: .*, glibc [\d.]+, [\d,]+ MB free, clock right, .*"
                         r"libquilm.so /.* [0-9a-f]{12}, model image\[1,1,8,8\]$")
        # Where the package for boards has been built there is a tool, which cannot start here.
        self.assertRegex(lines[1],
                         r"^arm: not fit: (there is no tool for aarch64|.*exec: ).*: aarch64, ")
        self.assertRegex(lines[2], r"^none: not fit: .*Connection refused")
        self.check_nothing_left(self.kinds)

    def test_record(self):
        run = self.digits(60)
        status, _, errors = self.run_boards("--record", "--part", 20, hosts=["good"],
                                            boards=self.kinds, run=run)
        self.assertEqual((status, errors), (0, b""))
        record = read_record(self.dir / "out/record.json")
        self.assertEqual((record.complete, record.executions, record.loop.inferences), (True, 60, 60))
        self.assertEqual(record.statistics["warm_up"].count, 3)
        self.assertEqual(record.functions["quilm_mdl_execute"].count, 60)
        self.assertEqual(record.command, [TOOL, *run, "-o", "out"])
        groups = [int(name[6:]) for name in re.findall(
            r'"name":"(group \d+)"', (self.dir / "out/record.json").read_text())]
        self.assertEqual(groups, [*range(60)])
        row = record.statistics["execute"]
        self.assertTrue(row.min <= row.p50 <= row.p90 <= row.p99 <= row.max)
        board = self.results()["boards"][0]
        self.assertEqual((board["latency"]["source"], board["latency"]["count"]), ("record", 57))

    def test_slow_board(self):
        run = self.digits(200)
        self.local(run)
        proxy = SlowProxy(self.kinds.boards["busybox"].port)
        self.addCleanup(proxy.stop)
        self.kinds.write_config({"busybox": proxy.port})
        self.addCleanup(self.kinds.write_config)
        status, _, errors = self.run_boards("--part", 10, hosts=["good", "busybox"],
                                            boards=self.kinds, run=run)
        self.assertEqual((status, errors), (0, b""))
        self.check_same()
        done = {board["name"]: board["parts"] for board in self.results()["boards"]}
        self.assertGreater(done["good"], done["busybox"])  # which nobody waited for


class Faults(BoardsTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.faulty = cls.root / "faulty"
        names = ["good", "hangs", "fails"]
        within = {}
        if os.geteuid() == 0 and subprocess.run(["unshare", "--mount", "true"], check=False,
                                                capture_output=True).returncode == 0:
            names.append("full")
            room = cls.faulty / "var tmp"
            within["full"] = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs -o size=600k none '
                              f'"{room}"; exec "$@"', "sh"]
        else:
            print("skipped: a board with a full disk: mounting is not allowed here")
        cls.names = names
        cls.bad = Boards(cls.faulty, names, {
            name: {"BOARD": name, "TEST": str(cls.root), "PAUSE": "0.3"} for name in names}, within)
        cls.addClassCleanup(cls.bad.stop)
        (cls.root / "hangs.cfg").write_text("run quilm_mdl_execute 3 sleep 1000\n")
        (cls.root / "fails.cfg").write_text("fail quilm_mdl_execute 3 9\n")
        tool = cls.root / "tool.sh"
        tool.write_text(FAULTY_TOOL)
        tool.chmod(0o755)

    def test_boards_with_faults(self):
        run = self.digits(1000)
        self.local(run)
        status, out, errors = self.run_boards("--tool", self.root / "tool.sh", "--timeout", 2,
                                              "--part", 100, hosts=self.names, boards=self.bad,
                                              run=run)
        self.assertEqual(status, 0, errors)
        self.assertEqual(out.count(b"dump data success"), 1000)
        self.check_same()
        results = self.results()
        outcomes = {(one["board"], one["outcome"]) for part in results["parts"]
                    for one in part["tries"]}
        expected = {("good", "done"), ("hangs", "hung"), ("fails", "failed"),
                    *([("full", "incomplete")] if "full" in self.names else [])}
        self.assertEqual(outcomes, expected)
        for part in results["parts"]:
            for one in part["tries"]:
                if one["outcome"] == "failed":
                    self.assertIn("execute model failed", one["error"])
                    self.assertIn("dump data success", (self.dir / "out" / one["log"]).read_text())
        self.check_nothing_left(self.bad)

    def begin(self, *options, hosts=NAMES, parts=2):
        """A run of 200 digits, each part of which takes a while, and its local counterpart."""
        run = self.digits(200)
        self.local(run)
        options = ("--tool", self.root / "tool.sh", "--part", 10, *options)
        os.environ["PAUSE"] = "0.3"
        process = self.start(*options, hosts=hosts, run=run)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.kill)
        self.wait_for(lambda: self.receipts() >= parts, process)
        return process, options, run

    def check_resumed(self, options, run, hosts=NAMES):
        done = self.receipts()
        status, _, errors = self.run_boards(*options, "--resume", hosts=hosts, run=run)
        self.assertEqual(status, 0, errors)
        self.check_same()
        self.check_nothing_left()
        self.assertGreater(done, 1)

    def test_boards_that_go_away(self):
        process, _, _ = self.begin()
        for name in NAMES[1:]:
            self.boards.boards[name].stop()
            self.addCleanup(self.boards.restart, name)
        out, errors = process.communicate(timeout=100)
        self.assertEqual(process.returncode, 0, errors)
        self.assertEqual(out.count(b"dump data success"), 200)
        self.check_same()
        left_out = {board["name"]: board["left_out"] for board in self.results()["boards"]}
        self.assertEqual(left_out["good"], "")
        self.assertTrue(any(left_out.values()), left_out)

    def test_killed_companion(self):
        process, options, run = self.begin()
        process.kill()
        process.wait()
        self.check_resumed(options, run)

    def test_killed_parallel(self):
        process, options, run = self.begin()
        for pid in descendants(process.pid):
            if b"parallel\0--plain" in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes():
                os.kill(pid, signal.SIGKILL)
        _, errors = process.communicate(timeout=100)
        self.assertEqual(process.returncode, 1)
        self.assertIn(b"parallel was ended by SIGKILL; --resume goes on", errors)
        self.check_nothing_left()
        self.check_resumed(options, run)

    def test_killed_tool(self):
        process, _, _ = self.begin()
        self.wait_for(lambda: self.running(b"/list.txt"), process)
        for pid in self.running(b"/list.txt"):
            os.kill(pid, signal.SIGKILL)
        self.assertEqual((process.communicate(timeout=100), process.returncode)[1], 0)
        self.check_same()
        self.check_nothing_left()

    def test_interrupted(self):
        process, options, run = self.begin()
        again = self.run_boards(*options, "--resume", run=run)
        self.assertEqual((again[0], again[1]), (2, b""))
        self.assertIn(b"another quilmrun-boards is at work", again[2])
        process.send_signal(signal.SIGINT)
        out, errors = process.communicate(timeout=100)
        self.assertEqual(process.returncode, 130)
        self.assertIn(b"inferences are missing: interrupted; --resume goes on", errors)
        self.assertEqual(out.count(b"dump data success") % 10, 0)
        self.check_nothing_left()
        begun = self.receipts()
        self.assertLess(begun, 20)
        for options_then, text in ((["-b", "1"], b"options"), (["-m", "quilm.json"], b"model"),
                                   (["-i", "quilm.json"], b"list")):
            status, _, errors = self.run_boards(*options, "--resume", run=[*run, *options_then])
            self.assertEqual(status, 2)
            self.assertIn(b"the " + text + b" of the run that is to be resumed", errors)
        status, _, errors = self.run_boards(*options, run=run)
        self.assertEqual(status, 2)
        self.assertIn(b"holds a run that is not finished", errors)
        self.check_resumed(options, run)


if __name__ == "__main__":
    unittest.main()
