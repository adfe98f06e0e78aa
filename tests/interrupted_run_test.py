"""What comes between a run and its end: signals, and an output directory that goes away."""

import os
import re
import shutil
import signal
import subprocess
import unittest

from models import NOT_EXECUTED, HostRuntimeTest, copies, floats
from scripted import FAILURE, PLAIN, SUCCESS, ScriptedRuntimeTest
from tool import BUILD, QUILMRUN

FOUR = "x.bin\n" * 4
DUMPED = ("[INFO]  model execute success\n[INFO]  The value of quilm_data_type is [4]\n"
          "[INFO]  dump data success\n")


def stopped(done):
    return f"[WARN]  stopped by a signal: {done} of 4 groups done\n" + FAILURE


def groups_of(files):
    return sorted({int(name.split("/")[0]) for name, content in files.items() if content})


class Signals(ScriptedRuntimeTest):
    def check_stop(self, script, done, tail, status=1):
        self.check(status, tail, script + PLAIN, list_text=FOUR)
        self.assertEqual(groups_of(self.outputs()), list(range(done)))
        self.assertRegex(self.csv(), r"^T,T,T,0\.016,0\.008,0\.016,0\.016,0\.005,0\n$")

    def test_first_signal_ends_the_run_after_the_inference_in_progress(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT,
                       signal.SIGXCPU):
            self.setUp()  # a directory of its own
            self.check_stop(f"signal quilm_mdl_execute 2 {number:d}\n", 2, DUMPED + stopped(2))
        for function, done in (("quilm_init", 0), ("quilm_mdl_load_from_mem", 0),
                               ("quilm_mdl_set_dynamic_batch_size", 1)):
            self.setUp()
            self.check_stop(f"signal {function} 1 15\n", done, stopped(done))

    def test_only_groups_left_out_make_a_stop(self):
        self.check_stop("signal quilm_mdl_execute 4 2\n", 4, DUMPED + SUCCESS, status=0)
        self.setUp()
        self.check(0, "[INFO]  Model Iters : 0\n" + SUCCESS, "signal quilm_init 1 2\n" + PLAIN,
                   list_text="")
        failed = NOT_EXECUTED.replace("Id is 1", "Id is 4000000077").split("\n", 1)[1] + FAILURE
        for group in (3, 4):
            self.setUp()
            self.check_stop(f"fail quilm_mdl_execute {group} 4\n"
                            f"signal quilm_mdl_execute {group} 2\n", group - 1, failed)

    def test_a_long_list_is_not_resolved_for_nothing(self):
        _, out = self.run_scripted("signal quilm_mdl_create_desc 1 15\n" + PLAIN, list_text=FOUR)
        self.assertEqual(out.count("inputPath"), 2)
        self.assertTrue(out.endswith(stopped(0)), out)

    def test_second_signal_ends_the_process(self):
        for first, second in ((2, 15), (15, 2), (2, 2)):
            status, _, _ = self.start_scripted(f"signal quilm_mdl_execute 2 {first}\n"
                                          f"signal quilm_mdl_unload 1 {second}\n" + PLAIN,
                                          list_text=FOUR)
            self.assertEqual(status, -second)
            self.assertTrue(self.calls().endswith("quilm_mdl_unload 4000000077\n"))

    def test_two_signals_that_are_one_request(self):
        # As timeout sends them: to its child, and then to the group that the child is in. On a busy
        # machine the pause may grow beyond what one request takes: then once more.
        for pause in (0, 4):
            for _ in range(5):
                status, out, _ = self.start_scripted(f"kill quilm_mdl_execute 2 15 {pause}\n" + PLAIN,
                                                     list_text=FOUR)
                if status == 1:
                    break
            self.assertTrue(out.endswith(DUMPED + stopped(2)), out)
        self.setUp()
        self.check_stop("kill quilm_mdl_execute 2 1 40\n", 2, DUMPED + stopped(2))
        status, _, _ = self.start_scripted("kill quilm_mdl_execute 2 15 25\n" + PLAIN,
                                           list_text=FOUR)
        self.assertEqual(status, -signal.SIGTERM)

    def test_signals_that_do_not_end_a_run(self):
        ignored = (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGQUIT)
        def ignore():
            for number in ignored:
                signal.signal(number, signal.SIG_IGN)
        for number in (*ignored, signal.SIGPIPE, signal.SIGXFSZ):
            self.check(0, DUMPED + SUCCESS, f"signal quilm_mdl_execute 2 {number:d}\n" + PLAIN,
                       list_text=FOUR, limit=ignore)
        self.check(1, stopped(2), "signal quilm_mdl_execute 2 24\nsignal quilm_mdl_unload 1 24\n" +
                   PLAIN, list_text=FOUR)

    def test_nobody_reads_the_first_line(self):
        reading, writing = os.pipe()
        os.close(reading)
        with os.fdopen(writing) as unread:
            result = subprocess.run([os.path.abspath(QUILMRUN), "-b", "2"], stdout=unread,
                                    check=False)
        self.assertEqual(result.returncode, 1)


@unittest.skipIf("debug" in QUILMRUN, "the sanitizers have calls of their own to make")
class SystemCalls(HostRuntimeTest):
    def test_interrupted_and_short_calls_change_nothing(self):
        for name in ("a", "b"):
            self.write(name, floats(1000, *range(2, 13)))
        self.write("rpn", "0.5 1.5\n2.5 3.5")
        proto = copies({"x": [1, 3, 4], "r": [1, 4]})
        preload = shutil.copy(BUILD / "libshort_calls.so", self.dir)  # to a path without blanks
        # The real engine reads files of the system, and complains when that is cut short.
        library = ("env", f"LD_LIBRARY_PATH={BUILD / 'host_identity'}")
        runs = [(self.run_model(proto, "a\nb\n", "-r", "rpn", within=within), self.outputs(),
                 self.csv()) for within in (library, (*library, f"LD_PRELOAD={preload}"))]
        self.assertEqual(runs[0], runs[1])
        self.assertEqual(len(runs[0][1]), 8)


class StandardStreams(ScriptedRuntimeTest):
    def test_closed_ones_take_no_messages_to_other_files(self):
        def close():
            for stream in range(3):
                os.close(stream)
        status, out = self.run_scripted(PLAIN, list_text=FOUR, limit=close)
        self.assertEqual((status, out), (0, ""))
        self.assertNotIn("[INFO]", self.calls())
        self.assertEqual(groups_of(self.outputs()), [0, 1, 2, 3])


    def test_text_of_the_library_keeps_its_place(self):
        _, out = self.run_scripted("print quilm_init 1 no newline;\n" + PLAIN)
        self.assertIn("open failed!\nno newline;/proc", out)
        _, out, _ = self.start_scripted("print quilm_init 1 last words\\n\nsignal quilm_init 1 9\n" + PLAIN)
        self.assertTrue(out.endswith("open failed!\nlast words\n"), out)


class OutputDirectory(ScriptedRuntimeTest):
    """Each of four groups writes two files of one page; the third finds no place any more."""

    def failures(self, *groups):
        return "".join(DUMPED.replace("[4]\n", "[4]\n" + "".join(
            f"[ERROR] create output file [out/{group}/y.0.S.{suffix}] failed\n"
            for suffix in ("float", "bin"))) for group in groups)

    def check_run(self, event, log, done, within=(), directory="out"):
        status, out = self.run_scripted(event + PLAIN, list_text=FOUR, within=within)
        said = re.sub(r"^\[(INFO|WARN)\]  (start|The (amount|stride|data|shape)|Reading|quilm_mdl).*\n",
                      "", out, flags=re.M)
        self.assertTrue(said.endswith("Model Iters : 4\n" + DUMPED * 2 + log + SUCCESS), said)
        self.assertEqual(status, 0)
        self.assertEqual(groups_of(self.outputs(directory)), done)
        self.assertRegex(self.csv(), r"^T,T,T,0\.016,")

    def test_disappears(self):
        self.check_run("run quilm_mdl_execute 3 mv out gone\n", self.failures(2, 3), [0, 1],
                       directory="gone")


class MediaMemory(ScriptedRuntimeTest):
    def test_figures_of_a_real_text(self):
        # The start of the runtime gives 8 KB back, the load of the model takes 100,000 KB.
        within = self.own_mounts(
            # The leak checker of the debug build wants to see more of /proc than there is here.
            'export ASAN_OPTIONS=detect_leaks=0; mkdir proc && mount --bind /proc proc && mount -t tmpfs none /proc && '
            'ln -s "$PWD/proc/self" /proc/self && mkdir /proc/umap && '
            'printf "media memory\\ntotal=2048KB, used=100000KB, free=1948KB\\n" > /proc/umap/media-mem')
        status, out = self.run_scripted(
            "run quilm_init 1 echo used= 99992 KB > /proc/umap/media-mem\n"
            "run quilm_mdl_load_from_mem 1 echo used=199992 > /proc/umap/media-mem\n" + PLAIN,
            "-p", "1", within=within)
        self.assertEqual(status, 0)
        self.assertIn("[INFO]  ModelInfoMem Size:         100000 KB.\n"
                      "[INFO]  QuilmInitMem Size:           -8 KB.\n", out)
        self.assertNotIn("open failed", out)
        self.assertEqual(self.csv(), "T,T,T,0.016,0.008,0.016,0.016,0.005,4294967288\n")
        shutil.rmtree(self.dir / "proc")
        status, _ = self.run_scripted("run quilm_init 1 echo used=100007KB > /proc/umap/media-mem\n"
                                 "fail quilm_init 1 7\n" + PLAIN, within=within,
                                 complaint=".* before quilm_init")
        self.assertEqual((status, self.csv()), (1, "T,T,T,0.000,0.000,0.000,0.000,0.000,7\n"))


if __name__ == "__main__":
    unittest.main()
