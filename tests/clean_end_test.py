"""Memory that runs out, exceptions, others at the same files: a run always ends as it should."""

import fcntl
import os
import subprocess
import unittest
from unittest import mock

from scripted import SCRIPTED_RUNTIME, PLAIN, UNLOADED, ScriptedRuntimeTest
from tool import BUILD, QUILMRUN, TEARDOWN


@unittest.skipIf("debug" in QUILMRUN, "the sanitizers have a malloc() of their own")
class MemoryRunsOut(ScriptedRuntimeTest):
    # Recurrent, and with enough inputs for named entries and RPN data.
    SCRIPT = "net_type 2\n" + "".join(f"input {name} 0 16 16 1 4\n" for name in "abcd") + \
        "output y 0 16 16 1 4\n"

    def run_short(self, options, fail=""):
        """(status, stdout, number of allocations)"""
        with mock.patch.dict(os.environ, FAILING_ALLOCATION=fail):
            status, out, err = self.start_scripted(
                self.SCRIPT, "-t", "1", *options, library=str(BUILD / "short_of_memory"),
                data=bytes(16), list_text="b:x.bin\na:x.bin\n" * 2)
        # Nothing is left over.
        self.assertRegex(err, r"^(host runtime: \w+ before quilm_init\n)*\d+ allocations\n$")
        return status, out, int(err.split()[-2])

    def check_end(self, fail, options):
        for name in ("memory_data.csv", "calls"):
            (self.dir / name).unlink(missing_ok=True)
        status, out, _ = self.run_short(options, fail)
        self.assertIn(status, (0, 1), out)
        if (self.dir / "calls").exists():
            self.assertEqual(self.calls().count("quilm_finalize\n"), 1)
            self.assertIn(TEARDOWN, out)
            self.assertRegex(self.csv(), "^T,T,T,")
        if status == 1:
            self.assertIn("[ERROR] out of memory\n", out)

    def test_wherever_it_does(self):
        self.write("rpn", "1 2 3 4")
        runs = 0
        for groups, options in ((2, ()), (4, ("-r", "rpn", "-p", "1"))):
            status, out, allocations = self.run_short(options)
            self.assertEqual((status, out.count("dump data success")), (0, groups), out)
            for number in range(1, allocations + 1):
                for fail in (f"{number}", f"{number}+"):
                    with self.subTest(fail=fail):
                        self.check_end(fail, options)
                        runs += 1
        print(f"seen: {runs} runs short of memory")


class Exceptions(ScriptedRuntimeTest):
    def run_throwing(self, function, text):
        """(status, stdout) of a run that gets to its end."""
        status, out, _ = self.start_scripted(f"throw {function} 0 {text}\n" + PLAIN)
        self.assertTrue(self.calls().endswith("quilm_finalize\n"), self.calls())
        return status, out

    def check_failure(self, function, tail):
        for text, said in (("int", " of an unknown type"), ("an error", ": an error")):
            status, out = self.run_throwing(function, text)
            self.assertEqual(status, 1)
            self.assertTrue(out.endswith(f"[ERROR] unexpected exception{said}\n" + tail), out)

    def test_end_like_failed_calls(self):
        failed = "[ERROR] sample process failed\n" + TEARDOWN
        not_loaded = "[WARN]  no model had been loaded, unload failed\n" + failed
        not_up = TEARDOWN.replace("[INFO]  end to reset", "[ERROR] reset device failed\n"
                                  "[INFO]  end to reset").replace(
            "[INFO]  end to finalize", "[ERROR] finalize quilm failed\n[INFO]  end to finalize")
        for function, tail in (("init", "[ERROR] sample init resource failed\n" + not_up),
                               ("rt_malloc", not_loaded), ("mdl_load_from_mem", not_loaded),
                               ("mdl_get_input_dims", UNLOADED + failed),
                               ("mdl_execute", UNLOADED + failed)):
            self.check_failure("quilm_" + function, tail)
            if function == "init":  # which nothing has measured
                self.assertEqual(self.csv(), "T,T,T,0.000,0.000,0.000,0.000,0.000,0\n")

    def test_do_not_stop_the_teardown(self):
        rows = [("quilm_mdl_unload", "unload model failed, modelId is 4000000077"),
                ("quilm_rt_destroy_stream", "destroy stream failed"),
                ("quilm_rt_destroy_context", "destroy context failed"),
                ("quilm_rt_reset_device", "reset device failed"),
                ("quilm_finalize", "finalize quilm failed"),
                *((f"quilm_{call}", "") for call in (
                    "rt_free", "destroy_data_buffer", "mdl_destroy_desc", "mdl_destroy_dataset"))]
        for function, message in rows:
            status, out = self.run_throwing(function, "int")
            self.assertEqual(status, 0, out)
            lines = "".join(line for line in out.splitlines(True) if "ERROR" in line)
            self.assertEqual(lines, f"[ERROR] {message}\n" if message else "")
            self.csv()


class OthersAtTheSameFiles(ScriptedRuntimeTest):
    def start(self, stdout, **files):
        return subprocess.Popen([os.path.abspath(QUILMRUN), *self.arguments(PLAIN, **files)],
                                cwd=self.dir, stdout=stdout, text=True,
                                env=dict(os.environ, LD_LIBRARY_PATH=SCRIPTED_RUNTIME))

    def test_report_is_replaced_by_one_run_at_a_time(self):
        os.link(self.write("memory_data.csv", "old\n" * 500), self.dir / "link")
        with open(self.dir / "link") as report:
            fcntl.flock(report, fcntl.LOCK_EX)
            process = self.start(subprocess.PIPE)
            for line in process.stdout:
                if "finalize" in line:
                    break
            with self.assertRaises(subprocess.TimeoutExpired, msg="it waits for the lock"):
                process.wait(timeout=0.1)
            self.assertEqual(report.read(), "old\n" * 500)
            fcntl.flock(report, fcntl.LOCK_UN)
            self.assertEqual((process.communicate()[0], process.returncode), ("", 0))
            report.seek(0)
            self.assertEqual(report.read(), (self.dir / "memory_data.csv").read_text())
        self.assertRegex(self.csv(), "^T,T,T,0.016,")

    def test_a_log_that_takes_no_more_is_waited_for(self):
        list_text = "x.bin\n" * 100
        _, expected = self.run_scripted(PLAIN, list_text=list_text)
        reading, writing = os.pipe()
        os.set_blocking(writing, False)
        fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
        process = self.start(writing, list_text=list_text)
        os.close(writing)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.2)
        with os.fdopen(reading) as log:
            self.assertEqual(self.mask(log.read()), expected)
        self.assertEqual(process.wait(), 0)


class Locale(ScriptedRuntimeTest):
    def test_figures_have_a_point_in_every_locale(self):
        subprocess.run(["localedef", "-c", "-i", "de_DE", "-f", "UTF-8", self.dir / "de_DE.UTF-8"],
                       check=True, capture_output=True)
        self.write("rpn", "0.5 1 1 1")
        with mock.patch.dict(os.environ, LOCPATH=str(self.dir)):
            status, out = self.run_scripted("locale quilm_init 1 de_DE.UTF-8\n" + PLAIN.replace(
                "input task", "input r 0 32 32 1 4\ninput task"), "-p", "1", "-r", "rpn")
        self.assertEqual(status, 0)
        self.assertEqual(self.csv(), "T,T,T,0.047,0.008,0.016,0.016,0.005,0\n")
        self.assertIn("[INFO]  Input Size:                0.047 KB.\n", out)
        self.assertRegex(out, r"Execute Time: +T ms\n")
        self.assertIn("  32/32:0000003f0000803f", self.calls())


if __name__ == "__main__":
    unittest.main()
