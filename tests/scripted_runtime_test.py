"""Runs on the scripted runtime: order of calls, releases, descriptions that make no sense."""

import os
import re
import resource
import signal
import struct
import unittest

from scripted import (FAILURE, PLAIN, SAY_DESTROYED, SAY_FREED, SCRIPTED_RUNTIME, STAGING_FAILED,
                      SUCCESS, TASK_AND_WORK, ScriptedRuntimeTest)
from tool import QUILMRUN


class Calls(ScriptedRuntimeTest):
    def test_order_of_a_run(self):
        self.check(0, SUCCESS, PLAIN, "-b", "2", "-t", "5", data=bytes(range(1, 17)))
        questions = r"^quilm_(mdl_get_(num|input|output|dataset)|data_type_size|get_data).*\n"
        self.assertEqual(re.sub(questions, "", self.calls(), flags=re.M), """\
quilm_init
quilm_rt_set_device 0
quilm_rt_set_op_wait_timeout 0
quilm_rt_create_context 0
quilm_rt_create_stream
quilm_rt_get_run_mode
quilm_rt_malloc 5 2
quilm_mdl_load_from_mem 5
quilm_mdl_create_desc
quilm_mdl_get_desc 4000000077
quilm_mdl_create_dataset
quilm_rt_malloc 32 2
quilm_create_data_buffer 32 8
quilm_mdl_add_dataset_buffer
quilm_mdl_create_dataset
quilm_rt_malloc 32 2
quilm_ext_get_mdl_net_type 4000000077
quilm_create_data_buffer 32 8
quilm_mdl_add_dataset_buffer
quilm_mdl_set_dynamic_batch_size 4000000077 0 2
quilm_rt_malloc 16 2
quilm_create_data_buffer 16 8
quilm_mdl_add_dataset_buffer
quilm_rt_malloc 32 2
quilm_create_data_buffer 32 16
quilm_mdl_add_dataset_buffer
quilm_ext_get_mdl_net_type 4000000077
quilm_rt_set_op_wait_timeout 0
quilm_mdl_execute 4000000077
  32/8:01020304000000000506070800000000090a0b0c000000000d0e0f1000000000
  16/8:00000000000000000000000000000000
  32/16:0000000000000000000000000000000000000000000000000000000000000000
""" + 3 * "quilm_rt_free\nquilm_destroy_data_buffer\n" + """\
quilm_mdl_destroy_dataset
quilm_mdl_unload 4000000077
quilm_mdl_destroy_desc
quilm_rt_free
quilm_rt_free
quilm_destroy_data_buffer
quilm_mdl_destroy_dataset
quilm_rt_destroy_stream
quilm_rt_destroy_context
quilm_rt_reset_device 0
quilm_finalize
""")


    def test_what_a_failed_call_hands_out_all_the_same_is_not_released(self):
        for create, said, release in (
                ("create_context", "quilm create context failed", "destroy_context"),
                ("create_stream", "quilm create stream failed", "destroy_stream"),
                ("malloc", "malloc device buffer failed. size is 5", "free")):
            status, out, err = self.start_scripted(f"claim quilm_rt_{create} 1 7\n" + PLAIN)
            self.assertEqual(status, 1)
            self.assertIn(f"[ERROR] {said}\n", out)
            self.assertRegex(err, "^host runtime: still there at quilm_finalize: 1 x ")
            self.assertNotIn(f"quilm_rt_{release}\n", self.calls())


class Descriptions(ScriptedRuntimeTest):
    def test_info_block(self):
        named = "input * 4 16 8 2 4\n", f"input {'m' * 127} 4 16 8 2 4\n"
        _, out = self.run_scripted(
            "".join(named) + TASK_AND_WORK + "output y -1 16 8\noutput z 70000 8 8 7\n"
            "fail quilm_mdl_get_input_dims 3 0\n", "-b", "3",  # claims to have filled it in
            list_text=f"{'m' * 127}:x.bin\n{'n' * 128}:x.bin\n")
        self.assertIn(f"[INFO]  inputPath: ./x.bin\n" * 2, out)
        self.assertIn(f"[INFO]  Input index: 1, name: {'m' * 127}\n", out)
        self.assertIn("[INFO]  DataType: 70000, stride: 8, ", out)
        self.assertIn("[INFO]  The value of quilm_data_type is [70000]\n", out)
        self.assertIn("[INFO]  Input index: 2, name: \n[INFO]  Shape: []\n", out)
        self.assertIn(f"""\
[INFO]  Input index: 0, name: {'n' * 128}
[INFO]  Shape: [2, 4, ]
[INFO]  DataType: 4, stride: 8, format: -2, dataSizeWithStride: 48
""", out)
        self.assertIn("""\
[INFO]  Output index: 0, name: y
[INFO]  Shape: []
[INFO]  DataType: -1, stride: 8, format: 70005, dataSizeWithStride: 48
""", out)

    def test_figures_that_make_no_sense(self):
        staging = "[ERROR] GetStrideParam error\n[ERROR] CreateInputBuf failed\n" + FAILURE
        rows = [
            (PLAIN + "dim_count 129\n", "[ERROR] quilm_mdl_get_input_dims error!\n" + staging),
            (PLAIN.replace("16 8 2 4", "16 0 2 4", 1),
             "[ERROR] quilm_mdl_get_input_default_stride error!\n" + staging),
            (PLAIN.replace("16 8 2 4", "0 8 2 4", 1),
             "[ERROR] quilm_mdl_get_input_size_by_index error!\n" + staging),
            (PLAIN.replace("16 8 2 4", f"{2**63} 8 2 4", 1),
             "[ERROR] quilm_mdl_get_input_size_by_index error!\n" + staging),
            (PLAIN.replace("16 8 2 4", f"{2**63 + 2**49} 8 2 4", 1),
             f"[ERROR] malloc device buffer failed. size is {2**50}\n" + STAGING_FAILED),
            (PLAIN.replace("16 8 2 4", f"{2**50} 8 2 4", 1),
             f"[ERROR] malloc device buffer failed. size is {2**51}\n" + STAGING_FAILED),
            (PLAIN.replace("x 4 16", "x 5 16"), "[ERROR] GetInputDataSize == 0 error\n"
             "[ERROR] CreateInputBuf failed\n" + FAILURE),
            (PLAIN.replace("16 8 2 4", "16 8 2 9", 1),
             "[ERROR] row of input 0 has 9 bytes, its stride only 8\n" + STAGING_FAILED),
            (PLAIN.replace("16 8 2 4", f"16 8 2 {2**32 + 4}", 1),
             f"[ERROR] row of input 0 has {2**32 + 4} bytes, its stride only 8\n" + STAGING_FAILED),
            (PLAIN.replace("16 8 2 4", "16 8 2 -1", 1),
             "[ERROR] row of input 0 has 18446744073709551615 bytes, its stride only 8\n" +
             STAGING_FAILED),
            (PLAIN.replace("y 4 16 8", "y 4 16 0"),
             "[ERROR] Error, output default stride is 0.\n[ERROR] execute CreateOutput failed\n" +
             FAILURE),
            (PLAIN.replace("y 4 16 8", f"y 4 {2**63} 8"),
             "[ERROR] Error, output size is 0.\n[ERROR] execute CreateOutput failed\n" + FAILURE),
            (PLAIN.replace("y 4 16 8", f"y 4 {2**63 + 2**49} 8"),
             f"[ERROR] can't malloc buffer, size is {2**50}, create output failed\n"
             "[ERROR] execute CreateOutput failed\n" + FAILURE),
            (PLAIN.replace("work 4 16 16", "work 4 0 16"),
             "[ERROR] quilm_mdl_get_input_size_by_index error!\n"
             "[ERROR] Error, GetInputStrideParam failed\n"
             "[ERROR] execute Create taskBuffer and workBuffer failed\n"
             "[ERROR] CreateTaskBufAndWorkBuf failed\n" + FAILURE)]
        for script, tail in rows:
            with self.subTest(tail=tail):
                self.check(1, tail, script, "-b", "2")

    def test_an_input_is_released_where_it_is_reported(self):
        end = "[ERROR] CreateInputBuf failed\n" + FAILURE
        for failure, said in (
                ("fail quilm_create_data_buffer 2 0\n",
                 "[ERROR] can't create data buffer, create input failed\n"),
                (SAY_DESTROYED + "fail quilm_mdl_add_dataset_buffer 2 7\n",
                 "[ERROR] add input dataset buffer failed\ndestroyed\n")):
            self.check(1, said + "[ERROR] execute CreateInput failed\nfreed\n" + end,
                       PLAIN + SAY_FREED + failure)

    def test_memory_of_a_wrapped_size_is_neither_overrun_nor_read_beyond(self):
        huge = 2**63 + 8  # two batches of it wrap to 16 bytes
        _, out = self.run_scripted(PLAIN.replace("4 16 8 2 4", f"4 {huge} 8 2 4"), "-b", "2")
        self.assertIn("  16/8:01020304000000000506070800000000\n", self.calls())
        self.assertEqual(out.count(f"[ERROR] output[0] needs {2**64 - 1} bytes, its buffer holds "
                                   "16\n[ERROR] GetOutputWithOutStride fail\n"), 2)
        one = "input {} 4 1 1 1\n"
        _, out = self.run_scripted("".join(map(one.format, "xyz")), "-b", "80000", data=bytes(70000))
        self.assertEqual(out.count("dataSizeWithStride: 80000\n"), 3)
        self.assertIn("[WARN]  Reset the batchSize to [70000]\n", out)
        self.assertIn("set batchsize to 70000\n", out)
        # As many batches as there can be, of sizes that wrap to 16, 8 and 24 bytes.
        x, task, work = (size * pow(2**32 - 1, -1, 2**64) % 2**64 for size in (16, 8, 24))
        _, out = self.run_scripted(f"input x 4 {x} 8 2 4\ninput task 4 {task} 8 1 8\n"
                                   f"input work 4 {work} 8 1 8\n", "-b", "-1")
        self.assertIn("set batchsize to 4294967295\n", out)
        self.assertIn("  16/8:01020304000000000506070800000000\n", self.calls())

    def test_recurrent_models(self):
        recurrent = ("net_type 2\ninput frames 0 32 8 4 2\ninput marks 0 16 16 1 4\n" +
                     TASK_AND_WORK + "output y 0 32 8 4 2\n")
        frames = struct.pack("<6f", *range(6))
        self.check(0, SUCCESS, recurrent, "-b", "4", data=frames, list_text="x.bin\nx.bin\n")
        self.assertIn("quilm_mdl_set_total_t 4000000077 3\n", self.calls())
        self.assertIn("quilm_mdl_set_dynamic_batch_size 4000000077 0 1\n", self.calls())
        third = "input rest 4 16 8 2 4\n"  # staged as the inputs of other models are
        _, out = self.run_scripted(recurrent.replace("input task", third + "input task"),
                                   data=bytes(8), list_text="x.bin\n" * 3)
        self.assertEqual(out.count("The shape of the model is [2,4]\n"), 1)
        self.assertEqual(out.count("The shape of the model is"), 1)
        # More frames than 16 bits hold, and a first dimension that 32 bits do not hold.
        many = "net_type 2\ninput frames 4 {0} 1 {1} 1\n" + TASK_AND_WORK + "output y 4 16 8 2 4\n"
        self.check(0, SUCCESS, many.format(70000, 2**32 + 1), data=bytes(70000))
        self.assertIn("quilm_mdl_set_total_t 4000000077 70000\n", self.calls())
        self.assertIn("set total_t to 70000\n", self.run_scripted(many.format(70000, 70000),
                                                                  data=bytes(70000))[1])
        # A scalar is one frame of one element.
        self.check(0, SUCCESS, "net_type 2\ninput frames 4 16 8\n" + TASK_AND_WORK +
                   "output y 4 16 8 2 4\n", data=b"\7")
        self.assertIn("  16/8:07000000", self.calls())
        too_many = "[ERROR] Current number of frames[{}] must be smaller than the " \
                   "recurrent_max_total_t[{}]\n"
        self.check(1, too_many.format(5, 4) + STAGING_FAILED,
                   recurrent.replace("1 4\n", "1 9\n", 1), data=bytes(40),
                   list_text="x.bin\nx.bin\n")
        self.check(1, too_many.format(70000, 66000) + STAGING_FAILED, many.format(70000, 66000),
                   data=bytes(70000))
        self.check(1, too_many.format(4, 3) + STAGING_FAILED,
                   recurrent.replace("1 4\n", "1 3\n", 1), data=bytes(32),
                   list_text="x.bin\nx.bin\n")


class Outputs(ScriptedRuntimeTest):
    # Two rows of data; the scripted runtime hands the staged bytes back as output 0.
    DATA = bytes([0, 255, 1, 128, 0xFF, 0x7F, 0x80, 0x3F])

    def dump(self, output, script="", **options):
        for path in (self.dir / "out").glob("*/*"):
            path.unlink()
        status, out = self.run_scripted("input x 4 16 8 2 4\n" + TASK_AND_WORK + output + script,
                                   data=self.DATA, **options)
        self.assertEqual(status, 0)
        files = self.outputs()
        self.assertEqual(out.count("[INFO]  dump data success\n"), 1)
        return out, files

    def test_every_data_type_code(self):
        row0, row1 = self.DATA[:4], self.DATA[4:]
        table = [(0, "f", 1), (1, "H", 2), (2, "b", 4), (3, "f", 1), (4, "B", 4), (6, "h", 2),
                 (7, "H", 2), (-1, "f", 1)]
        for code, letter, count in table:
            with self.subTest(code=code):
                out, files = self.dump(f"output y{code} {code} 16 8 2 {count}\n")
                values = [v for row in (row0, row1) for v in struct.unpack(f"<{count}{letter}", row)]
                expected = row0 + row1 if letter == "f" else struct.pack(f"<{2 * count}f", *values)
                self.assertEqual(files[f"0/y{code}.0.S.bin"], expected)
                # A float without a NaN among it prints as Python prints it.
                self.assertEqual(files[f"0/y{code}.0.S.float"].decode(),
                                 "".join(f"{v:.16f}\n" for v in values))
                self.assertIn(f"[INFO]  The value of quilm_data_type is [{code % 2**32}]\n", out)

    def test_what_is_made_is_open_to_as_many_as_the_mask_allows(self):
        self.addCleanup(os.umask, os.umask(0))
        self.dump("output y 4 16 8 2 4\n")
        made = [self.dir / "memory_data.csv", *(self.dir / "out").rglob("*")]
        self.assertEqual([path.stat().st_mode & 0o777 for path in made],
                         [0o666, 0o775, 0o666, 0o666])

    def test_names(self):
        _, files = self.dump("output - 4 16 8 2 4\noutput . 4 16 8 2 4\noutput a/b\\c.d 4 16 8 2 4\n"
                             "output a.b/c/d 4 16 8 2 4\n")
        self.assertEqual(sorted(files), [f"0/{name}.S.{suffix}" for name in (
            "a_b_c_d.0", "a_b_c_d.1", "output.0", "output.1") for suffix in ("bin", "float")])

    def test_outputs_that_cannot_be_read(self):
        failed = "[ERROR] GetOutputWithOutStride fail\n"
        rows = [
            ("y 4 16 8 2 9\n", "", "[ERROR] output[0] needs 17 bytes, its buffer holds 16\n"),
            (f"y 4 16 8 2 {2**32 + 4}\n", "",
             f"[ERROR] output[0] needs {2**32 + 12} bytes, its buffer holds 16\n"),
            ("y 6 16 1 3\n", "".join(  # more values than a list can hold
                f"fail quilm_mdl_get_output_size_by_index {call} {2**62}\n" for call in (4, 5)),
             f"[ERROR] output[0]: no memory for {3 * 2**62} values\n"),
            ("y 4 16 8 2 4\n", "reported_size 11\n",
             "[ERROR] output[0] needs 12 bytes, its buffer holds 11\n"),
            ("y 8 16 4 2 1\n", "reported_size 999\n",  # one byte an element, but read as floats
             "[ERROR] output[0] needs 52 bytes, its buffer holds 16\n"),
            ("y 4 16 8 2 4\n", "reported_size 0\n", "[ERROR] output[0] data or size(0) invalid\n"),
            ("y 4 16 8\n", "", "[ERROR] Error, dims para invalid\n"),
            ("y 4 16 8 2 0\n", "", "[ERROR] Error, dims para invalid\n"),
            ("y 4 16 8 2 -4\n", "", "[ERROR] Error, dims para invalid\n"),
            ("y 5 16 8 2 4\n", "", "[ERROR] Error, dataSize == 0 invalid\n"),
            ("y 4 16 8 2 4\n", "fail quilm_mdl_get_dataset_buffer 1 0\n"
                               "fail quilm_mdl_get_dataset_buffer 2 0\n",
             "[ERROR] output[0] dataBuffer nullptr invalid\n")]
        for output, script, message in rows:
            with self.subTest(output=output, script=script):
                out, files = self.dump("output " + output, script)
                self.assertIn("]\n" + 2 * (message + failed) + "[INFO]  dump data success\n", out)
                self.assertEqual(files, {})
        # A runtime that counts outputs too many hands out nothing for them.
        for claimed, dumped in ((2, 2), (-1, 4097)):
            out, files = self.dump("output y 4 16 8 2 4\n",
                                   f"fail quilm_mdl_get_dataset_num_buffers 2 {claimed}\n",
                                   complaint=r"host runtime: .*buffer: \w+ \d+, but there are 1")
            self.assertEqual(out.count("quilm_data_type"), dumped)
            self.assertEqual(out.count("] dataBuffer nullptr invalid\n" + failed), 2 * dumped - 2)
            self.assertEqual(sorted(files), ["0/y.0.S.bin", "0/y.0.S.float"])
        out, _ = self.dump("output y 4 16 8 2 4\n", "fail quilm_get_data_buffer_addr 1 0\n"
                           "fail quilm_get_data_buffer_size 1 999\n")
        self.assertEqual(out.count("[ERROR] output[0] data or size(999) invalid\n" + failed), 1)
        staged = b"".join(row.ljust(8, b"\0") for row in (self.DATA[:4], self.DATA[4:], b""))
        _, files = self.dump("output overlapping 4 20 8 2 12\n")
        self.assertEqual(files["0/overlapping.0.S.bin"],
                         struct.pack("<24f", *staged[:12], *staged[8:20]))
        _, files = self.dump("output short 4 4 8 1 4\n")  # less than a row: nothing, successfully
        self.assertEqual(files, {"0/short.0.S.float": b"", "0/short.0.S.bin": b""})

    def test_full_disk(self):
        def limit():  # writes past the 40th byte of a file fail, as on a full disk
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (40, 40))
        self.write("m.om", "model")
        self.write("x.bin", self.DATA)
        self.write("list.txt", "x.bin")
        self.write("script.cfg", PLAIN.replace("output", "output z 4 64 8 8 8\noutput"))
        status, out, _ = self.run_tool("-m", "m.om", "-i", "list.txt", "-j", "script.cfg", "-o", "out",
                                       library=SCRIPTED_RUNTIME, preexec_fn=limit)
        self.assertEqual(status, 0)
        self.assertTrue(out.endswith(
            "[INFO]  dump data success\n" + SUCCESS +
            "[WARN]  can't write memory report $D/memory_data.csv: File too large\n"), out)
        self.assertNotIn("[ERROR]", out)
        files = self.outputs()
        self.assertEqual(files["0/z.0.S.float"], b"0.0000000000000000\n255.0000000000000000\n")
        self.assertEqual(files["0/y.0.S.bin"], bytes(32))

    @unittest.skipIf("debug" in QUILMRUN, "address checking needs the whole address space")
    def test_an_output_too_large_for_the_memory_left(self):
        count = 64 * 2**20
        def limit():
            resource.setrlimit(resource.RLIMIT_AS, (5 * count, 5 * count))
        status, out = self.run_scripted(PLAIN + f"output big 4 {count} {count} 1 {count}\n", limit=limit)
        self.assertEqual(status, 0)
        self.assertEqual(out.count(f"[ERROR] output[1]: no memory for {count} values\n"
                                   "[ERROR] GetOutputWithOutStride fail\n"), 2)
        self.assertEqual(sorted(self.outputs()), ["0/y.0.S.bin", "0/y.0.S.float"])


if __name__ == "__main__":
    unittest.main()
