"""Runs the quilmrun executable and shows what it left behind, free of what differs between runs."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ.get("QUILMRUN_BUILD",
                                    pathlib.Path(__file__).parents[1] / "build/release"))
QUILMRUN = os.environ.get("QUILMRUN", str(BUILD / "quilmrun"))

INFO, WARN, ERROR = "[INFO]  ", "[WARN]  ", "[ERROR] "
NO_MEDIA_MEMORY = "/proc/umap/media-mem open failed!\n"

BRING_UP = NO_MEDIA_MEMORY * 2 + """\
[INFO]  quilm init success
[INFO]  open device 0 success
[INFO]  set op wait time success
[INFO]  create context success
[INFO]  create stream success
[INFO]  get run mode success
"""

TEARDOWN = """\
[INFO]  end to destroy stream
[INFO]  end to destroy context
[INFO]  end to reset device is 0
[INFO]  end to finalize quilm
"""

CSV_HEADER = ("Model Load Time(ms),Read Model File Time(ms),Model Execute Time(ms),Input Size(KB),"
              "Task Buffer Size(KB),Output Size(KB),Mapper Temp Buffer(KB),Online Model Size(KB),"
              "Quilm Init Memory Size(KB)\n")


# What nohup or a background job hands on as ignored would reach the tool too.
for stop_signal in (signal.SIGHUP, signal.SIGQUIT, signal.SIGTERM):
    signal.signal(stop_signal, signal.SIG_DFL)
signal.signal(signal.SIGINT, signal.default_int_handler)


class ToolTest(unittest.TestCase):
    """A test with a directory of its own, written as $D in what the tool prints."""

    maxDiff = None

    def setUp(self):
        self.dir = pathlib.Path(os.path.realpath(tempfile.mkdtemp(prefix="quilmrun_")))
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        (self.dir / "out").mkdir()

    def write(self, name, content):
        """Writes text or bytes to a file in the test's directory and returns its path."""
        path = self.dir / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else bytes(content))
        return str(path)

    def run_tool(self, *arguments, library=None, within=(), mask=True, **options):
        """Runs the tool in the test's directory, by the command `within` if any; returns (status,
        stdout, masked unless told otherwise, stderr)."""
        environment = dict(os.environ, **({"LD_LIBRARY_PATH": library} if library else {}))
        result = subprocess.run([*within, os.path.abspath(QUILMRUN), *map(str, arguments)],
                                cwd=self.dir, env=environment, timeout=120, check=False,
                                capture_output=True, **options)
        out = result.stdout.decode(errors="surrogateescape")
        return result.returncode, self.mask(out) if mask else out, \
            result.stderr.decode(errors="surrogateescape").replace(str(self.dir), "$D")

    def own_mounts(self, before, after=""):
        """A command that runs another with mounts of its own, between the shell commands `before`
        and `after`; nobody else sees them. Skips the test where that is not allowed."""
        own = ["unshare", "--mount"] if os.geteuid() == 0 else \
            ["unshare", "--user", "--map-root-user", "--mount"]
        if subprocess.run([*own, "mount", "-t", "tmpfs", "none", str(self.dir / "out")],
                          check=False, capture_output=True).returncode != 0:
            reason = "mounting is not allowed here, not even privately"
            print(f"skipped: {self.id()}: {reason}")
            self.skipTest(reason)
        script = f'{before}\nstatus=0\n"$@" || status=$?\n{after}\nexit $status'
        return [*own, "sh", "-ec", script, "sh"]

    def mask(self, text):
        """Directory, times and time stamps replaced by $D, T and S."""
        text = text.replace(str(self.dir), "$D")
        text = re.sub(r"(Time: +)\d+\.\d\d ms", r"\1T ms", text)
        return re.sub(r"\.\d{16}\.(float|bin)", r".S.\1", text)

    def outputs(self, directory="out"):
        """{relative path with the time stamp as S: bytes} of every file below `directory`."""
        root = self.dir / directory
        return {re.sub(r"\.\d{16}\.", ".S.", str(path.relative_to(root))): path.read_bytes()
                for path in sorted(root.rglob("*")) if path.is_file()}

    def csv(self, directory="."):
        """The memory report's value line with the three times as T; checks the header."""
        header, values = (self.dir / directory / "memory_data.csv").read_text().splitlines(True)
        self.assertEqual(header, CSV_HEADER)
        return re.sub(r"^(\d+\.\d\d,){3}", "T,T,T,", values)
