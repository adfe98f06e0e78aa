"""What decides about parts and looks at what boards send, without any board."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

import companion  # noqa: E402,F401  # pylint: disable=unused-import  # finds the companions
from quilmrun_tools.artifacts.board_results import Difference, Try  # noqa: E402
from quilmrun_tools.artifacts.run_log import RunLog, Tensor  # noqa: E402
from quilmrun_tools.boards import part_log, policy, ustar  # noqa: E402
from quilmrun_tools.boards.incoming import Incoming  # noqa: E402
from quilmrun_tools.boards.input_list import group_by_name, read_input_list  # noqa: E402
from quilmrun_tools.boards.latency import difference_from, latency_of  # noqa: E402
from quilmrun_tools.boards.part_log import Inference  # noqa: E402
from quilmrun_tools.boards.plan import OutputShape, cut, part_size, real  # noqa: E402
from quilmrun_tools.boards.shapes import shapes_of  # noqa: E402
from quilmrun_tools.boards.state import BoardState  # noqa: E402
from quilmrun_tools.boards.tool_command import check_length, parse_command  # noqa: E402
from quilmrun_tools.boards.tools import tool_for  # noqa: E402
from quilmrun_tools.common.errors import Unreadable  # noqa: E402

TEXT = b"1.0000000000000000\n" * 2
LOG = ("log.txt", b"a log")
BIN, FLOAT = ("out/0/y.0.17.bin", bytes(8)), ("out/0/y.0.17.float", TEXT)


def member(name, content, kind=None):
    head = bytearray(ustar.header("x", len(content)))
    head[:100] = (name if isinstance(name, bytes) else name.encode()).ljust(100, b"\0")
    head[156:157] = kind or head[156:157]
    head[148:156] = b" " * 8
    head[148:156] = b"%06o\0 " % sum(head)
    return bytes(head) + content + bytes(ustar.padded(len(content)) - len(content))


class Archives(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        (self.root / "incoming").mkdir()

    def take(self, *members, step=700, text=True, inferences=1):
        self.folder = pathlib.Path(tempfile.mkdtemp(dir=self.root / "incoming"))
        course = [Inference([2])] * inferences
        incoming = Incoming(self.folder, [OutputShape("y", 0, 1, 2)], inferences, text,
                            lambda _: course)
        data = b"".join(one if isinstance(one, bytes) else member(*one) for one in members) + \
            ustar.END
        for at in range(0, len(data), step):
            incoming.feed(data[at:at + step])
        return incoming, incoming.missing(course)

    def test_whole(self):
        incoming, missing = self.take(("out/", b"", b"5"), LOG, BIN, FLOAT, step=1)
        self.assertEqual((missing, incoming.ended), ("", True))
        self.assertEqual((self.folder / "0/y.0.17.float").read_bytes(), TEXT)
        self.assertEqual(incoming.files, {b"log.txt": b"a log"})
        long = member("././@LongLink", b"out/0/y.0.17.bin\0", b"L") + member("z", bytes(8))
        for step in (700, 1 << 22):
            self.assertEqual(self.take(LOG, long, text=False, step=step)[1], "")
        large = ("log.txt", bytes(3 << 19))  # more than is kept of what was used
        self.assertEqual(self.take(large, ("err.txt", b"x"), BIN, FLOAT)[1], "")
        self.assertEqual(self.take(LOG, text=False)[1], "0 of 1 output files came back")
        steps = [(f"out/{at}/y.0.{stamp}.bin", bytes(8)) for at, stamp in enumerate((5, 1005, 4005))]
        incoming, missing = self.take(LOG, *steps[::-1], text=False, inferences=3)
        self.assertEqual((missing, incoming.paces()), ("", [1.0, 3.0]))
        again = self.take(LOG, *steps, text=False, inferences=3)[0]
        self.assertEqual(incoming.sha256(), again.sha256())  # whatever the order
        self.assertNotEqual(incoming.sha256(), self.take(LOG, BIN, text=False)[0].sha256())
        longest = ("out/0/y.0.1.float", (b"-" + b"1" * 39 + b"." + b"0" * 16 + b"\n") * 2)
        self.assertEqual(self.take(LOG, ("out/0/y.0.1.bin", bytes(8)), longest)[1], "")
        with self.assertRaises(ustar.Damaged):
            self.take(LOG, (longest[0], longest[1] + b"\n"))
        parted = bytearray(member("0/y.0.17.bin", bytes(8)))
        parted[345:348] = b"out"
        parted[148:156] = b" " * 8
        parted[148:156] = b"%06o\0 " % sum(parted[:512])
        self.assertEqual(self.take(LOG, bytes(parted), text=False)[1], "")

    def test_hostile(self):
        for members in (
                [("../evil", b"x")], [("/evil", b"x")], [("out/../evil.0.1.bin", bytes(8))],
                [("out/0/../../y.0.17.bin", bytes(8))], [("out/1/y.0.17.bin", bytes(8))],
                [("out/00/y.0.17.bin", bytes(8))], [("out/0/z.0.17.bin", bytes(8))],
                [("out/0/y.1.17.bin", bytes(8))], [("out/0/y.0.17.exe", bytes(8))],
                [("out/0/y.0.17.bin", bytes(4))], [("out/0/y.0.17.bin", bytes(12))],
                [("out/0/y.0.17.float", TEXT[:-1] + b"0")], [("out/0/y.0.17.float", TEXT[:-2])],
                [("out/0/y.0.17.float", b"0" * 200)], [BIN, ("out/0/y.0.18.float", TEXT)],
                [BIN, BIN], [LOG], [("status", bytes(5000))], [("evil", b"x")],
                [("out/0/y.0.17.bin", b"", b"2")], [("log.txt", b"", b"1")],
                [("x", b"y" * 70000, b"L")], [b"x" * 512],
                [member("out/0/y.0.17.bin", bytes(8)).replace(b"bin", b"bio")]):
            with self.subTest(members=str(members)[:80]), self.assertRaises(ustar.Damaged):
                self.take(LOG, *members)
        self.assertEqual([path.name for path in self.root.iterdir()], ["incoming"])

    def test_what_is_sent(self):
        (self.root / "x").write_bytes(b"12345")
        (self.root / "one").write_bytes(b"1")
        self.assertEqual(b"".join(ustar.content(bytes(self.root / "one"), 1)), b"1" + bytes(511))
        for size in (4, 6):
            with self.assertRaises(ustar.Damaged):
                b"".join(ustar.content(bytes(self.root / "x"), size))
        sent = b"".join([ustar.header("d", 0, 0o700, True), ustar.header("d/x", 5),
                         *ustar.content(bytes(self.root / "x"), 5), ustar.END])
        shown = subprocess.run(["tar", "tvf", "-"], input=sent, check=True, capture_output=True)
        self.assertRegex(shown.stdout.decode(), r"^drwx------ 0/0 +0 1970.* d/?\n-rw------- 0/0 +5 "
                                                r"1970.* d/x\n$")
        got = []
        reader = ustar.ArchiveReader(lambda *_: None, lambda *one: got.append(one))
        reader.feed(ustar.header("in/1", 5) + b"".join(ustar.content(bytes(self.root / "x"), 5)))
        self.assertEqual(got, [(b"in/1", b"12345")])


def tried(board, outcome="failed", error="e"):
    return Try(board, outcome, "", 1.0, "", error)


OUTPUTS = [OutputShape("y", 0, 2, 3), OutputShape("y", 1, 1, 5)]
COURSE = b"""\
[WARN]  Reset the batchSize to [2]
[WARN]  quilm_mdl_set_dynamic_batch_size set batchsize to 2
[INFO]  The value of quilm_data_type is [0]
[INFO]  The value of quilm_data_type is [0]
[ERROR] GetOutputWithOutStride fail
[INFO]  dump data success
[INFO]  The value of quilm_data_type is [0]
[ERROR] create output file [x] failed
[INFO]  The value of quilm_data_type is [0]
[INFO]  dump data success
"""


class Logs(unittest.TestCase):
    def test_course(self):
        found = part_log.course(COURSE, OUTPUTS, 4)
        self.assertEqual([(one.values, one.reset, one.unwritten) for one in found],
                         [([12, None], True, False), ([12, 10], False, True)])

    def test_sections(self):
        head, paths = b"[INFO]  inputPath: m\n[INFO]  x\n", b"[INFO]  inputPath: a\n" * 2
        count = b"[INFO]  create model output success\n[INFO]  Model inputNum: 1\n"
        tail = b"[ERROR] late\n[INFO]  end\n"
        text = head + paths + count + b"[INFO]  Model Iters : 2\n" + COURSE + tail
        self.assertEqual(part_log.sections(text), part_log.Sections(head, count, COURSE, tail))
        self.assertEqual(part_log.sections(head), part_log.Sections(head, b"", b"", b""))
        self.assertEqual(part_log.first_error(tail), "late")

    def test_paths(self):
        paths = part_log.Paths(b"/r.1", {b"model-1": b"m y", b"p/in/000000.bin": b"./a"},
                               {b"model-1": b"/m y", b"p/in/000000.bin": b"/d/a"}, b"p/out", b"o/", 7)
        for text, expected in (
                (b"[INFO]  inputPath: /r.1/model-1\nload /r.1/model-1 ok",
                 b"[INFO]  inputPath: m y\nload /m y ok"), (b"[/r.1/p/in/000000.bin]", b"[/d/a]"),
                (b"[/r.1/p/out/2/y.0.1.bin]", b"[o//9/y.0.1.bin]"), (b"/r11/model-1", b"/r11/model-1"),
                (b"/r.1/other", b"/r.1/other")):
            self.assertEqual(paths.translate(text), expected)

    def test_shapes(self):
        log = RunLog("", batch_size=4, outputs=[
            Tensor("a.b", (1, 2, 3), 0, 16, 32), Tensor("a_b", (5,), 0, 20, 20),
            Tensor("c", (2, -1), 0, 16, 16), Tensor("d", (2,), 0, 0, 0), Tensor("e", (3,), 4, 1, 3)])
        self.assertEqual(shapes_of(log, parse_command(["q", "-b", "4"], "")), [
            OutputShape("a_b", 0, 2, 3), OutputShape("a_b", 1, 1, 5), OutputShape("c", 0, 1, 0),
            OutputShape("d", 0, 0, 0), OutputShape("e", 0, 3, 3)])
        log.batch_size = 1
        self.assertEqual(shapes_of(log, parse_command(["q"], ""))[0], OutputShape("a_b", 0, 2, 3))


class Decisions(unittest.TestCase):
    def test_boards_for_a_part(self):
        boards = {0: BoardState(in_a_row=1), 1: BoardState(), 2: BoardState(in_a_row=2),
                  3: BoardState(left_out="gone")}
        hosts = ["a", "b", "c", "d"]
        self.assertEqual(policy.candidates(boards, hosts, []), [1, 0, 2])
        self.assertEqual(policy.candidates(boards, hosts, [tried("b")]), [0])
        self.assertEqual(policy.candidates(boards, hosts, [tried(one) for one in "abc"]), [1])
        self.assertEqual(policy.candidates({3: boards[3]}, hosts, []), [])
        boards = {0: BoardState(done_at=5.0), 1: BoardState(done_at=7.0)}
        self.assertEqual(policy.proven(boards, [0, 1], 5.0), [1])

    def test_ends(self):
        self.assertEqual(policy.after_failure(BoardState(in_a_row=1), "x"), "")
        self.assertEqual(policy.after_failure(BoardState(in_a_row=2), "x"),
                         "failed 3 times in a row, last: x")
        for expected, left, tries in (
                ("e", 2, [tried("a"), tried("b")]), (None, 2, [tried("a"), tried("a")]),
                ("e", 1, [tried("a"), tried("a")]), (None, 2, [tried("a"), tried("b", error="f")]),
                (None, 2, [tried("a", error=""), tried("b", error="")]),
                (None, 2, [tried("a"), tried("b", "unreachable")]),
                ("e", 2, [tried("a"), tried("c", "hung"), tried("b")])):
            self.assertEqual(policy.fault_of_run(tries, left), expected, tries)
        self.assertTrue(policy.is_given_up([tried("a")] * 3))
        self.assertFalse(policy.is_given_up([tried("a")] * 2 + [tried("b", "stopped")]))

    def test_parts(self):
        shapes = [OutputShape("y", 0, 10, 100)]  # 23,000 bytes for a batch
        for expected, arguments in ((125, (2000, 4, shapes, 1)), (1, (3, 4, shapes, 1)),
                                    (2917, (10**6, 4, shapes, 1)), (291, (10**6, 4, shapes, 10)),
                                    (1, (0, 1, shapes, 1)), (250, (1000, 1, [], 1))):
            self.assertEqual(part_size(*arguments), expected)
        entries = [b"%d" % at for at in range(7)]
        self.assertEqual([(one.number, one.first, one.entries) for one in cut(entries, 2, 2)],
                         [(0, 0, tuple(entries[:4])), (1, 2, tuple(entries[4:6]))])
        self.assertEqual([one.inferences for one in cut([], 1, 5)], [0])
        self.assertEqual([one.inferences for one in cut(entries, 0, 5)], [0])
        self.assertEqual([(one.number, one.first, one.inferences)
                          for one in cut(entries, 1, 9, 3, 1)], [(1, 3, 4)])

    def test_differences(self):
        usual, slow = [1.0 + at / 1000 for at in range(100)], [1.2 + at / 1000 for at in range(100)]
        found = difference_from(latency_of(slow, "record"), latency_of(usual, "record"))
        self.assertTrue(found.is_remarkable)
        self.assertAlmostEqual(found.share, 0.19, 2)
        few = difference_from(latency_of([0.9, 1.2, 1.3], "record"), latency_of(usual, "record"))
        self.assertFalse(few.is_remarkable)  # three say nothing for certain
        self.assertFalse(Difference(0.09, 0.08, 0.1).is_remarkable)
        latency = latency_of([1.0, 2.0, 3.0, 4.0], "stamps")
        self.assertEqual((latency.p50_ms, latency.per_second), (2.5, 400.0))
        # Of 101 the median's rank is 50, and 1.96 * sqrt(101) / 2 is 9.8.
        ranks = latency_of([float(at) for at in range(101)], "stamps")
        self.assertEqual((ranks.p50_low_ms, ranks.p50_high_ms, ranks.p99_ms), (40, 60, 99))
        self.assertEqual((latency.p50_low_ms, latency.p50_high_ms), (1, 4))
        self.assertIsNone(latency_of([], "stamps"))
        self.assertEqual(latency_of([0.25, 0.25], "stamps").per_second, 4000)
        none = latency_of([0.0], "stamps")
        self.assertEqual(none.per_second, 0)
        for one, others in ((None, latency), (latency, None), (latency, none)):
            self.assertIsNone(difference_from(one, others))


class Commands(unittest.TestCase):
    def test_lists(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "l")
            path.write_bytes(b"a\0a\n\nx:b\r\n:c\nd:\n/e\nx:y:z")
            self.assertEqual(
                [one.replace(folder.encode(), b"D") for one in read_input_list(str(path))],
                [b"D/a", b"x:D/b\r", b"D/:c", b"D/d:", b"D//e", b"x:D/y:z"])
        for given, expected in (("y:1 x:2 y:3 x:4", "2 1 4 3"), ("y:1 x:2 y:3", "y:1 x:2 y:3"),
                                ("x:1 2", "x:1 2"), ("z:1 x:2", "z:1 x:2"), ("", "")):
            self.assertEqual(group_by_name(given.encode().split(), [b"x", b"y"]),
                             expected.encode().split())

    def test_command(self):
        check_length(b"a" * 4096)
        for number in ("2147483647", "-2147483648"):
            parse_command(["q", "-t", number], "")
        self.assertEqual(parse_command(["q", "-b", " +10"], "").batch, 10)
        self.assertEqual(parse_command(["q"], "").batch, 1)
        self.assertEqual(real(b"none/../x"), os.getcwdb() + b"/none/../x")
        self.assertEqual((real(b"/none"), real(b"/usr/../usr")), (b"/none", b"/usr"))
        command = parse_command("q -m a -b 4x -m b left -r x,,y, -t -5".split(), "m")
        self.assertEqual((command.last("m"), command.batch, command.rpn), ("b", 4, ["x", "", "y"]))
        self.assertEqual(command.on_board({"m": "M"}),
                         "-m M -b 4x -m M -r x,,y, -t -5".split())
        for words, reason in (("q -m a", "lacks -j"), ("q -j x -m a -b x", "no number"),
                              ("q -j x -m a -b 2147483648", "no number"), ("q -z", "not understand"),
                              ("q -j x -m " + "a" * 4097, "4097 bytes"), ("", "what is to be run")):
            with self.assertRaisesRegex(Unreadable, reason):
                parse_command(words.split(), "mj")

    def test_tool_for_a_processor(self):
        with tempfile.TemporaryDirectory() as folder:
            files = {"arm": b"\x7fELF" + bytes(14) + b"\xb7\0", "amd": b"\x7fELF" + bytes(14) + b"\x3e\0"}
            for name, content in files.items():
                pathlib.Path(folder, name).write_bytes(content)
            named = [f"{folder}/{name}" for name in files]
            for processor, name in (("aarch64", "arm"), ("x86_64", "amd")):
                self.assertEqual(tool_for(processor, named, "", False).files,
                                 (("bin/quilmrun", files[name]),))
            for processor, named_here, record in (("riscv64", named, False),
                                                  ("aarch64", named, True)):
                with self.assertRaises(Unreadable):
                    tool_for(processor, named_here, "", record)


if __name__ == "__main__":
    unittest.main()
