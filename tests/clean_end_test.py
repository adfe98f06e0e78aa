"""Memory that runs out, exceptions, others at the same files: a run always ends as it should."""

import fcntl
import os
import subprocess
import unittest

from tool import NO_MEDIA_MEMORY, QUILMRUN, TEARDOWN, ToolTest

TINY_RUNTIME = os.environ["TINY_RUNTIME"]
INITIALISED, FINALISED = "initialised\n", "finalised\n"


@unittest.skipIf("debug" in QUILMRUN, "the sanitizers have a malloc() of their own")
class TinyRuntimeTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("m.om", "model")
        for name in ("a", "b"):
            self.write(name, bytes(16))
        self.write("rpn", "1 2 3 4")
        self.write("list.txt", "b:b\na:a\n" * 2)

    def start_tiny(self, *options, stdout=subprocess.PIPE, **environment):
        return subprocess.Popen(
            [os.path.abspath(QUILMRUN), "-m", "m.om", "-i", "list.txt", "-j", "q.json", "-o", "out",
             "-t", "1", *options], cwd=self.dir, stdout=stdout, stderr=subprocess.PIPE, text=True,
            env={"LD_LIBRARY_PATH": TINY_RUNTIME, **environment})

    def run_tiny(self, *options, **environment):
        """(status, stdout, stderr)"""
        process = self.start_tiny(*options, **environment)
        out, err = process.communicate(timeout=60)
        return process.returncode, out, err


class MemoryRunsOut(TinyRuntimeTest):
    def check_end(self, fail, options):
        (self.dir / "memory_data.csv").unlink(missing_ok=True)
        status, out, err = self.run_tiny(*options, TINY_FAIL=fail)
        self.assertIn(status, (0, 1), err)
        if INITIALISED in err:
            self.assertEqual(err.count(FINALISED), 1)
            self.assertIn(TEARDOWN, out)
            self.assertRegex(self.csv(), "^T,T,T,")
        if status == 1:
            self.assertRegex(out, r"(?m)^\[ERROR\] ")

    def test_wherever_it_does(self):
        runs = 0
        for groups, options in ((2, ()), (4, ("-r", "rpn", "-p", "1"))):
            status, out, err = self.run_tiny(*options)
            self.assertEqual((status, out.count("dump data success")), (0, groups), out)
            allocations = int(err.split()[-2])
            for number in range(1, allocations + 1):
                for fail in (f"{number}", f"{number}+"):
                    with self.subTest(fail=fail):
                        self.check_end(fail, options)
                        runs += 1
        print(f"seen: {runs} runs short of memory")


class Exceptions(TinyRuntimeTest):
    def check_failure(self, function, message, tail):
        for kind, said in (("int", "of an unknown type"), ("std", "thrown by a test")):
            status, out, err = self.run_tiny(TINY_THROW=f"{function}:{kind}")
            self.assertEqual((status, err.count(FINALISED)), (1, 1), out + err)
            said = message.replace("*", f"unexpected exception{' ' if kind == 'int' else ': '}{said}")
            self.assertTrue(out.endswith(said + tail + TEARDOWN), out)

    def test_end_like_failed_calls(self):
        failed = "[ERROR] sample process failed\n"
        not_loaded = "[WARN]  no model had been loaded, unload failed\n" + failed
        unloaded = "[INFO]  unload model success, modelId is 5\n" + failed
        self.check_failure("quilm_init", "[ERROR] *\n", "[ERROR] sample init resource failed\n")
        for function, tail in (("rt_malloc", not_loaded), ("mdl_load_from_mem", not_loaded),
                               ("mdl_get_input_dims", unloaded), ("mdl_execute", unloaded)):
            self.check_failure("quilm_" + function, "[ERROR] *\n", tail)

    def test_do_not_stop_the_teardown(self):
        rows = [("quilm_mdl_unload", "unload model failed, modelId is 5"),
                ("quilm_rt_destroy_stream", "destroy stream failed"),
                ("quilm_rt_destroy_context", "destroy context failed"),
                ("quilm_rt_reset_device", "reset device failed"),
                ("quilm_finalize", "finalize quilm failed"),
                *((f"quilm_{call}", "") for call in (
                    "rt_free", "destroy_data_buffer", "mdl_destroy_desc", "mdl_destroy_dataset"))]
        for function, message in rows:
            status, out, err = self.run_tiny(TINY_THROW=f"{function}:int")
            self.assertEqual((status, err.count(FINALISED)), (0, 1), out + err)
            lines = "".join(line for line in out.splitlines(True) if "ERROR" in line)
            self.assertEqual(lines, f"[ERROR] {message}\n" if message else "")
            self.csv()


class OthersAtTheSameFiles(TinyRuntimeTest):
    def test_report_is_replaced_by_one_run_at_a_time(self):
        os.link(self.write("memory_data.csv", "old\n"), self.dir / "link")
        with open(self.dir / "link") as report:
            fcntl.flock(report, fcntl.LOCK_EX)
            process = self.start_tiny()
            for line in process.stdout:
                if "finalize" in line:
                    break
            with self.assertRaises(subprocess.TimeoutExpired, msg="it waits for the lock"):
                process.wait(timeout=0.1)
            self.assertEqual(report.read(), "old\n")
            fcntl.flock(report, fcntl.LOCK_UN)
            self.assertEqual((process.communicate()[0], process.returncode), ("", 0))
            report.seek(0)
            self.assertEqual(report.read(), (self.dir / "memory_data.csv").read_text())
        self.assertRegex(self.csv(), "^T,T,T,0.031,")

    def test_a_log_that_takes_no_more_is_waited_for(self):
        self.write("list.txt", "a\nb\n" * 50)
        _, expected, _ = self.run_tiny()
        reading, writing = os.pipe()
        os.set_blocking(writing, False)
        fcntl.fcntl(writing, fcntl.F_SETPIPE_SZ, 4096)
        process = self.start_tiny(stdout=writing)
        os.close(writing)
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(timeout=0.2)
        with os.fdopen(reading) as log:
            self.assertEqual(log.read(), expected)
        self.assertEqual(process.communicate()[1].count(FINALISED), 1)


class Locale(TinyRuntimeTest):
    def test_figures_have_a_point_in_every_locale(self):
        subprocess.run(["localedef", "-c", "-i", "de_DE", "-f", "UTF-8", self.dir / "de_DE.UTF-8"],
                       check=True, capture_output=True)
        status, out, err = self.run_tiny("-p", "1", LOCPATH=str(self.dir), TINY_LOCALE="de_DE.UTF-8")
        self.assertEqual(status, 0)
        self.assertNotIn("no such locale", err)
        self.assertEqual(self.csv(), "T,T,T,0.031,0.016,0.016,0.016,0.005,0\n")
        self.assertIn("[INFO]  Input Size:                0.031 KB.\n", out)
        self.assertRegex(out, r"Execute Time: +\d+\.\d\d ms\n")


if __name__ == "__main__":
    unittest.main()
