"""Rules of a run that show in what it prints last, in its status or in its files."""

import os
import re
import struct
import time
import unittest
import unittest.mock

from scripted import (FAILURE, PLAIN, SCRIPTED_RUNTIME, SUCCESS, TASK_AND_WORK,
                      ScriptedRuntimeTest)
from tool import CSV_HEADER, NO_MEDIA_MEMORY, TEARDOWN, ToolTest

RPN = PLAIN.replace("input task", "input r 0 32 32 {}\ninput task")
NOT_DONE = "[ERROR] Set rpn data failed\n" + FAILURE
PATHS = "[INFO]  inputPath: ./x.bin\n"


USAGE = ("[ERROR] example: -m modelPath -i imagePath -j quilmJsonPath [-t nlpTotalT] [-b batchSize] "
         "[-r rpnData] [-p profile] [-o outputPath]\n")
LONGEST = "/" + 4095 * "x"


class Options(ToolTest):
    def start_of_run(self, *arguments):
        """What is printed before the model's path."""
        status, out, err = self.run_tool(*arguments)
        self.assertEqual(status, 1)
        return out.removesuffix("[INFO]  inputPath: \n"
                                "[ERROR] inputPath size = 0, out of range (0, 4096] error\n"), err

    def test_words_and_values(self):
        rows = [("word -b 8 word -t -2 -- -b 9", ["batchSize: 8", "nlpTotalT: -2"]),
                ("-o -- word -b 4", ["batchSize: 4"]), ("-b 70000 one two three", ["batchSize: 70000"]),
                ("- one -b4 -b5x", ["batchSize: 4", "batchSize: 5"]), ("one -- -b 4", [])]
        for posixly in ({}, {"POSIXLY_CORRECT": "1"}):
            with unittest.mock.patch.dict(os.environ, posixly):
                for words, lines in rows:
                    self.assertEqual(self.start_of_run(*words.split()),
                                     ("".join(f"[INFO]  {line}\n" for line in lines), ""))

    def test_unknown_and_incomplete_ones_show_the_usage(self):
        out, err = self.start_of_run("-x", "-b", "8", "-o")
        self.assertEqual(out, USAGE + "[INFO]  batchSize: 8\n" + USAGE)
        self.assertRegex(err, r"^.*invalid option -- 'x'\n.*requires an argument -- 'o'\n$")

    def test_paths(self):
        refused = "[ERROR] inputPath size = {}, out of range (0, 4096] error\n"
        fails = "[ERROR] realpath fail, input: {}\n"
        # The lines of these three are one less, as long as, and one more than what is printed at once.
        for size in (2027, 2028, 2029):
            path = "/" + (size - 1) * "p"
            self.assertIn(f"[INFO]  inputPath: {path}\n", self.run_tool("-m", path)[1])
        for path, said in ((LONGEST + "x", refused.format(4097)), (LONGEST, fails.format(LONGEST)),
                           ("no/such", ""), ("/dev/null/x", fails.format("/dev/null/x"))):
            _, out, _ = self.run_tool("-m", path)
            self.assertTrue(out.startswith(f"[INFO]  inputPath: {path}\n{said}"), out)
            self.assertEqual("open file" in out, path != LONGEST + "x")  # it goes on with the list


class Rules(ScriptedRuntimeTest):
    def test_how_runs_end(self):
        os.mkdir(self.dir / "d")
        self.write("rpn", "1 2 3 4")
        rows = [
            # Context and stream exist when the run mode turns out wrong.
            (1, "run_mode 1\n" + PLAIN, (), "[INFO]  create stream success\n"
             "[ERROR] quilm run mode failed\n[ERROR] sample init resource failed\n" + TEARDOWN),
            (0, PLAIN, ("-p", "65537"), "[INFO]  dump data success\n" + SUCCESS),
            (1, "fail quilm_mdl_get_desc 1 9\n" + PLAIN, (), "[ERROR] get model description failed\n" +
             PATHS + "[ERROR] execute CreateDesc failed\n" + FAILURE),
            (0, "fail quilm_mdl_unload 1 3\n" + PLAIN, (), "[INFO]  dump data success\n"
             "[ERROR] unload model failed, modelId is 4000000077\n[INFO]  execute sample success\n" +
             TEARDOWN),
            (0, TASK_AND_WORK, (), "[INFO]  Model inputNum: 0\n[INFO]  Model Iters : 0\n" + SUCCESS),
            (0, PLAIN, ("-r", "rpn,rpn"), "[WARN]  2 rpn files, but the model has 1 inputs: nothing to "
             "execute\n[INFO]  Model inputNum: 0\n[INFO]  Model Iters : 0\n" + SUCCESS),
            (1, RPN.format("1 4"), ("-r", "d"), "[ERROR] $D/d is not a file, please enter a file\n"
             "[ERROR] read rpn para error\n" + NOT_DONE),
            (1, RPN.format("-1 4"), ("-r", "rpn"), "[INFO]  input rpn data height[0] * width[4]\n"
             "[ERROR] only support single or multi class\n" + NOT_DONE),
            (1, RPN.format("4 -4"), ("-r", "rpn"),
             "[INFO]  input rpn data height[4] * width[0]\n"
             "[ERROR] [multi thr]: detPara.size 4 should be 0\n" + NOT_DONE),
            # The fifth time is when task and work buffer are added; two inputs are these alone.
            (1, "fail quilm_mdl_get_num_inputs 5 2\n" + PLAIN, (), "batchsize to 1\n"
             "[ERROR] input dataset Num is error.\n[ERROR] CreateTaskBufAndWorkBuf failed\n" +
             FAILURE)]
        for status, script, options, tail in rows:
            with self.subTest(tail=tail):
                self.check(status, tail, script, *options)
                self.assertLessEqual(self.calls().count("quilm_mdl_execute"), 1)

    def test_groups_are_whole_and_in_the_order_of_the_list(self):
        two_inputs = PLAIN.replace("input task", "input z 4 16 8 2 4\ninput task")
        self.write("z.bin", bytes(range(9, 17)))
        start = time.time()
        self.check(0, SUCCESS, two_inputs, list_text="x.bin\nx.bin\nz.bin\nx.bin\nmissing\n")
        self.assertEqual(self.calls().count("quilm_mdl_execute"), 2)
        for group, first in ((0, 1), (1, 9)):  # the output is a copy of the first input
            self.assertEqual(self.outputs()[f"{group}/y.0.S.bin"],
                             struct.pack("<8f", *range(first, first + 8)))
        for file in (self.dir / "out/0").iterdir():
            self.assertTrue(start < int(file.name.split(".")[2]) / 1e6 < time.time())

    def test_the_model_releases_the_inputs_of_a_failed_group_before_its_outputs(self):
        self.check(1, "[ERROR] Set batch size failed\n" + FAILURE,
                   "fail quilm_mdl_set_dynamic_batch_size 1 5\n" + PLAIN + "output z 0 8 8 2\n")
        entry = "quilm_rt_free\nquilm_destroy_data_buffer\n"
        self.assertIn("quilm_mdl_destroy_desc\nquilm_rt_free\n" + entry +
                      "quilm_mdl_destroy_dataset\n" + 2 * entry + "quilm_mdl_destroy_dataset\n",
                      re.sub(r"quilm_(mdl_get_dataset|get_data).*\n", "", self.calls()))

    def test_times_are_of_the_last_group_and_of_one_execution(self):
        for script, options, least, most in (
                ("run quilm_mdl_execute 1 sleep 0.5\n", (), 0, 500),
                ("run quilm_mdl_execute 0 sleep 0.03\n", ("-p", "1"), 30, 600)):
            before = time.time_ns() // 1000
            self.check(0, SUCCESS if not options else "ms\n[INFO]  " + 51 * "=" + "\n",
                       script + PLAIN, *options, list_text="x.bin\nx.bin\n")
            values = (self.dir / "memory_data.csv").read_text().splitlines()[1].split(",")
            self.assertTrue(least <= float(values[2]) < most, values)
            stamps = [int(path.name.split(".")[2]) for path in self.dir.glob("out/*/*")]
            self.assertTrue(before <= max(stamps) <= time.time_ns() // 1000, stamps)

    def test_every_figure_of_the_report_stands_in_its_column(self):
        arguments = self.arguments(
            "run quilm_rt_malloc 1 sleep 0.05\nrun quilm_mdl_load_from_mem 1 sleep 0.4\n"
            "run quilm_mdl_execute 1 sleep 0.15\n"
            "input x 4 100000 50000 2 50000\ninput task 4 102400 8 1 8\ninput work 4 204800 16 1 16\n"
            "output y 4 307200 8 2 4\noutput z 4 102400 8 2 4\n", "-p", "1", data=bytes(100000))
        self.write("m.om", bytes(70000))
        start = time.monotonic()
        status, out, _ = self.run_tool(*arguments, library=SCRIPTED_RUNTIME, mask=False)
        elapsed = 1000 * (time.monotonic() - start)
        self.assertEqual(status, 0)
        self.assertNotIn("shape not match", out)
        self.assertIn("quilm_create_data_buffer 100000 50000\n", self.calls())
        load, read, execute, *rest = (self.dir / "memory_data.csv").read_text().split("\n")[1].split(",")
        self.assertEqual(rest, ["97.656", "100.000", "400.000", "200.000", "68.359", "0"])
        for line in (f"Read Model File Time:      {read} ms", f"Model Load Time:           {load} ms",
                     f"Model Execute Time:        {execute} ms", "Input Size:                97.656 KB.",
                     "Task Buffer Size:          100.000 KB.", "Work Buffer Size:          200.000 KB.",
                     "Output Size:               400.000 KB.", "Om Size:                   68.359 KB."):
            self.assertIn(f"[INFO]  {line}\n", out)
        # A time in another's column is too short there; on a busy machine any may be longer.
        for time_of_step, least in ((load, 400), (read, 50), (execute, 150 / 21)):
            self.assertGreaterEqual(float(time_of_step), least, (load, read, execute))
        self.assertLess(float(load) + float(read) + 20 * float(execute), elapsed)

    def test_numbers_that_the_library_leaves_unfilled_are_0(self):
        _, out = self.run_scripted("net_type 12\n" + PLAIN, "-t", "5")
        self.assertIn("model type: 12\n", out)
        _, out = self.run_scripted("fail quilm_mdl_load_from_mem 1 0\n"
                                   "fail quilm_ext_get_mdl_net_type 2 0\n" + PLAIN, "-t", "5")
        self.assertIn("model type: 0\n[INFO]  model execute success\n", out)
        self.assertIn("[INFO]  unload model success, modelId is 0\n", out)

    def test_models_without_data_inputs(self):
        for script, sizes in ((TASK_AND_WORK, "0.000,0.008,0.000,0.016"),
                              ("input work 4 16 16 1 16\n", "0.000,0.000,0.000,0.016"),
                              ("output y 4 16 8 2 4\n", "0.000,0.000,0.016,0.000")):
            self.check(0, "[INFO]  Model Iters : 0\n" + SUCCESS, script)
            self.assertEqual(self.csv(), f"T,T,T,{sizes},0.005,0\n")

    def test_a_run_that_does_not_start_reports_zeros(self):
        sizes = "".join(f"[INFO]  {what:26} 0.000 KB.\n" for what in (
            "Input Size:", "Task Buffer Size:", "Work Buffer Size:", "Output Size:"))
        self.check(1, "[ERROR] quilm set op wait time failed\n"
                   "[ERROR] sample init resource failed\n" + TEARDOWN + f"[INFO]  {'=' * 51}\n" +
                   sizes + "[INFO]  ModelInfoMem Size:         0 KB.\n"
                   "[INFO]  QuilmInitMem Size:           0 KB.\n"
                   f"[INFO]  Om Size:                   0.000 KB.\n[INFO]  {'-' * 51}\n"
                   "[INFO]  Read Model File Time:      T ms\n[INFO]  Model Load Time:           T ms\n"
                   f"[INFO]  Model Execute Time:        T ms\n[INFO]  {'=' * 51}\n",
                   "fail quilm_rt_set_op_wait_timeout 1 7\n" + PLAIN, "-p", "1")
        self.assertEqual((self.dir / "memory_data.csv").read_text(),
                         CSV_HEADER + "0.00,0.00,0.00,0.000,0.000,0.000,0.000,0.000,0\n")

    def test_a_report_goes_into_a_pipe_that_is_read(self):
        os.mkfifo(self.dir / "memory_data.csv")
        reader = os.open(self.dir / "memory_data.csv", os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        self.check(0, SUCCESS, PLAIN)
        self.assertRegex(os.read(reader, 4096).decode(), f"^{re.escape(CSV_HEADER)}[0-9.,]+,0\n$")

    def test_a_model_file_that_disappears_while_it_is_loaded(self):
        self.check(1, f"[ERROR] open file $D/m.om failed\n{NO_MEDIA_MEMORY}"
                   "[ERROR] load model from file failed, model file is $D/m.om\n"
                   "[ERROR] execute LoadModelFromFileWithMem failed\n"
                   "[WARN]  no model had been loaded, unload failed\n"
                   "[ERROR] sample process failed\n" + TEARDOWN,
                   "run quilm_mdl_load_from_mem 1 rm m.om\n" + PLAIN, complaint=".* 1 x .*model.*")

    def test_a_bad_rpn_path_ends_it_before_the_runtime_is_touched(self):
        self.write("rpn", "1 2 3 4")
        status, out, _ = self.start_scripted(PLAIN, "-r", "rpn,,rpn")
        self.assertEqual((status, out), (1, "".join(
            f"[INFO]  inputPath: {path}\n" for path in ("m.om", "script.cfg", "rpn", "")) +
            "[ERROR] inputPath size = 0, out of range (0, 4096] error\n"))
        self.assertFalse((self.dir / "calls").exists())

    def test_files_are_not_handed_on_to_other_programs(self):
        self.run_scripted(f"run quilm_ext_get_mdl_net_type 1 ls -l /proc/self/fd > {self.dir}/open\n" +
                     PLAIN)
        self.assertNotIn("x.bin", (self.dir / "open").read_text())


if __name__ == "__main__":
    unittest.main()
