"""Files that are cut, too long or changed: the run says so and ends as it should."""

import pathlib
import random
import re
import unittest

from onnx import TensorProto, helper

from models import (FAILURE, SHAPE_WARNING, SUCCESS, HostRuntimeTest, copies, executed, floats,
                    model, tensor)
from tool import TEARDOWN

DIGITS = pathlib.Path(__file__).parent.parent / "examples/digits/digits.onnx"
EMPTY = ("[ERROR] Empty file: $D/x\n[ERROR] get pic device buffer failed\n"
         "[ERROR] CreateInputBuf failed\n" + FAILURE)


def identity(shapes, **properties):
    return copies(shapes, TensorProto.UINT8, **properties)


def around(positions):
    return sorted({p + d for p in positions for d in (-1, 0, 1)} - {-1})


class InputSizes(HostRuntimeTest):
    """Every row boundary, and a byte before and behind it."""

    ROWS, ROW = 6, 5  # of a batch, bytes
    DATA = bytes(range(1, 256))

    def expected(self, size, batch, stride):
        """(end of the log, output) for a file of `size` bytes and a batch size of `batch`."""
        single = self.ROWS * stride
        said, limit = "", batch * single
        if size // (self.ROWS * self.ROW) != batch:
            said = SHAPE_WARNING
            if size >= single:
                batch = size // single
                said += f"[WARN]  Reset the batchSize to [{batch}]\n"
        limit = min(limit, batch * single)
        if size > limit:
            return said + (f"[ERROR] Input data size[{size}] must be smaller than malloc size"
                           f"[{limit}]\n[ERROR] get pic device buffer failed\n"
                           "[ERROR] CreateInputBuf failed\n") + FAILURE, None
        output = self.DATA[:size].ljust(batch * self.ROWS * self.ROW, b"\0")
        return said + executed(batch, (4,)) + SUCCESS, output[:batch * self.ROWS * self.ROW]

    def test_plain_and_padded_rows(self):
        runs = 0
        for alignment, batch in ((1, 1), (1, 3), (8, 2)):
            stride = -(-self.ROW // alignment) * alignment
            for size in around(range(0, (batch + 1) * self.ROWS * self.ROW + 1, self.ROW)):
                with self.subTest(alignment=alignment, batch=batch, size=size):
                    self.write("x", self.DATA[:size])
                    status, out, err = self.run_model(
                        identity({"x": [1, 2, 3, self.ROW]}), "x", "-b", str(batch),
                        settings={"row_alignment": alignment})
                    end, output = self.expected(size, batch, stride) if size else (EMPTY, None)
                    self.assertTrue(out.endswith(end), out)
                    self.assertEqual((status, err), (int(output is None), ""))
                    if output is not None:
                        self.assertEqual(self.outputs()["0/x'.0.S.bin"], floats(*output))
                self.setUp()
                runs += 1
        print(f"seen: {runs} sizes staged")

    def test_frames_of_a_recurrent_model(self):
        self.write("marks", b"\1\1\1\1")
        proto = identity({"x": [4, 1, self.ROW], "marks": [1, 4]},
                         properties={"quilm.net_type": "2"})
        for size in around(range(self.ROW, 6 * self.ROW, self.ROW)):
            self.write("x", self.DATA[:size])
            status, out, err = self.run_model(proto, "x\nmarks")
            frames = size // self.ROW
            self.assertEqual((status, err), (int(frames > 4), ""))
            # Frames that are not whole do not count, unless there is no whole one.
            counted = self.DATA[:frames * self.ROW or size].ljust(4 * self.ROW, b"\0")
            if frames > 4:
                self.assertIn(f"Current number of frames[{frames}] must be smaller than the "
                              "recurrent_max_total_t[4]\n", out)
            else:
                self.assertEqual("set total_t to" in out, frames > 0)
                self.assertEqual(self.outputs()["0/x'.0.S.bin"], floats(*counted))
            self.setUp()
            self.write("marks", b"\1\1\1\1")


class ChangedFiles(HostRuntimeTest):
    def setUp(self):
        super().setUp()
        self.random = random.Random(20261123)

    def changed(self, text, count=60):
        """`count` versions of a text with some bytes changed, inserted or left out."""
        for _ in range(count):
            version = bytearray(text)
            for _ in range(self.random.randint(1, 4)):
                place = self.random.randrange(len(version))
                new = bytes(self.random.choices((*text, *b"\n\r :,\0/.+-e9\xff"),
                                                k=self.random.randrange(2)))
                version[place:place + self.random.randrange(2)] = new
            yield bytes(version)

    def check_end(self, status, out, err):
        self.assertIn(status, (0, 1), err)
        self.assertTrue(out.endswith(TEARDOWN), out)
        self.assertNotIn("still there", err)
        self.assertRegex(err, r"\A(host runtime: [^\n]*\n)*\Z")

    def test_models_cut_short(self):
        self.write("x", bytes(8))
        failed = ("[ERROR] load model from file failed, model file is $D/m.onnx\n"
                  "[ERROR] execute LoadModelFromFileWithMem failed\n"
                  "[WARN]  no model had been loaded, unload failed\n"
                  "[ERROR] sample process failed\n" + TEARDOWN)
        for whole in (identity({"x": [1, 8]}), DIGITS.read_bytes()):
            for cut in range(1, len(whole), len(whole) // 50):
                status, out, err = self.run_model(whole[:cut], "x")
                self.assertEqual((status, out[-len(failed):]), (1, failed))
                self.assertRegex(err, "^host runtime: the model cannot be loaded: [^\n]+\n$")

    def test_lists(self):
        for name in ("a", "b"):
            self.write(f"{name}.bin", bytes(8))
        proto = identity({"a": [1, 8], "b": [1, 8]})
        for text in self.changed(b"a:a.bin\nb:b.bin\nb:b.bin\n\na:a.bin\n"):
            with self.subTest(text=text):
                status, out, err = self.run_model(proto, text)
                self.check_end(status, out, err)
                lines = [line for line in text.decode(errors="surrogateescape").split("\n") if line]
                named = len(lines) % 2 == 0 and all(re.match("[ab]:.", line) for line in lines)
                entries = out.count("[INFO]  inputPath: ") - 2
                self.assertEqual(entries, len(lines))
                self.assertEqual(status == 0, len(lines) < 2 or named and all(
                    line[2:] in ("a.bin", "b.bin", "/a.bin", "/b.bin", "./a.bin", "./b.bin")
                    for line in lines), out)

    def test_rpn_files(self):
        self.write("x", bytes(16))
        proto = model([helper.make_node("Add", ["x", "r"], ["y"])],
                      [tensor("x", [1, 4]), tensor("r", [1, 4])], [tensor("y", [1, 4])])
        number = rb"[+-]?(\d+\.?\d*|\.\d+)(e[+-]?\d+)?"
        for text in self.changed(b"0.5 -3e+2 \n.7\t1000\n"):
            with self.subTest(text=text):
                self.write("rpn", text)
                status, out, err = self.run_model(proto, "x", "-r", "rpn")
                self.check_end(status, out, err)
                values = [float(match[0]) for match in re.finditer(number, text)]
                if re.sub(number, b"", text).strip(b" \t\n\v\f\r") or max(map(abs, values)) > 3e38:
                    self.assertIn("[ERROR] read rpn para error\n", out)
                elif len(values) != 4:
                    self.assertIn(f"[ERROR] [single thr]: detPara.size {len(values)} should", out)
                else:
                    self.assertEqual((status, self.outputs()["0/y.0.S.bin"]), (0, floats(*values)))
            for path in (self.dir / "out").glob("*/*"):
                path.unlink()

    def test_settings(self):
        self.write("x", bytes(8))
        refused = 0
        for text in self.changed(b'{"row_alignment": 32, "task_buffer_size": 1024, "run_mode": 0,\n'
                                 b'"faults": [{"function": "quilm_init", "call": 99, "code": 5}]}'):
            with self.subTest(text=text):
                self.write("m.onnx", identity({"x": [1, 8]}))
                self.write("list.txt", "x")
                self.write("q.json", text)
                status, out, err = self.run_tool("-m", "m.onnx", "-i", "list.txt", "-j", "q.json",
                                                 "-o", "out")
                if "quilm init success" in out:
                    self.check_end(status, out, err)
                else:
                    self.assertRegex(err, r"\Ahost runtime: settings file \$D/q.json: [^\n]*\n\Z")
                    refused += 1
        self.assertGreater(refused, 20)


if __name__ == "__main__":
    unittest.main()
