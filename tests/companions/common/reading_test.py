"""What every reader has in common: regular files only, checked types, known versions."""

import dataclasses
import json
import os
import pathlib
import socket
import sys
import unittest
from typing import Literal, Optional, Union

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import COMPANIONS  # the path of what follows
from tool import ToolTest

from quilmrun_tools.common import decoding, errors, files, json_files, own_files

assert COMPANIONS


@dataclasses.dataclass
class Point:
    x: float
    name: str = decoding.json_name("called", default="none")
    kept: int = decoding.not_in_json(default=7)


@dataclasses.dataclass
class Everything:
    points: list[Point] = dataclasses.field(default_factory=list)
    pair: tuple[int, bool] = (1, True)
    many: tuple[int, ...] = ()
    by_name: dict[str, int] = dataclasses.field(default_factory=dict)
    maybe: Optional[Point] = None
    either: Union[int, str, None] = None
    word: Literal["pass", "fail"] = "pass"
    path: pathlib.Path = pathlib.Path(".")


class Decoding(unittest.TestCase):
    def test_there_and_back(self):
        whole = Everything([Point(float("inf"), "p"), Point(float("-inf"))], (2, False), (3, 4),
                           {"a": 5}, Point(1.5), "text", "fail", pathlib.Path("a/b"))
        written = decoding.encode(whole)
        self.assertEqual(written["points"], [{"x": "inf", "called": "p"},
                                             {"x": "-inf", "called": "none"}])
        self.assertEqual(decoding.decode(Everything, {**written, "unknown": [1]}), whole)
        self.assertEqual(json.dumps(decoding.encode({"a": np.int64(1), 2: np.float32(.5)})),
                         '{"a": 1, "2": 0.5}')
        self.assertEqual(decoding.decode(Point, {"x": 3}).x, 3.0)
        self.assertIsInstance(decoding.decode(Point, {"x": 3}).x, float)

    def test_what_does_not_fit(self):
        for value, text in [
                ([], "is a list, not an object"), ({"points": {}}, "points is an object, not a list"),
                ({"points": [{"x": 1}, {}]}, "points[1].x is missing"),
                ({"points": [{"x": True}]}, "points[0].x is true, not a number"),
                ({"points": [{"x": "1"}]}, "points[0].x is '1', not a number"),
                ({"points": [{"x": 1e999}]}, "beyond what a float holds"),
                ({"points": [{"x": 10**30}]}, "a number of more than 64 bits"),
                ({"points": [{"x": 1, "called": 2}]}, "points[0].called is a number, not a text"),
                ({"pair": [1]}, "pair has 1 values instead of 2"),
                ({"pair": [1, 0]}, "pair[1] is a number, neither true nor false"),
                ({"pair": [1.0, True]}, "pair[0] is 1.0, not a whole number"),
                ({"pair": [2**63, True]}, "pair[0] is a number of more than 64 bits"),
                ({"many": [1, True]}, "many[1] is true, not a whole number"),
                ({"by_name": {"a": None}}, "by_name.a is null, not a whole number"),
                ({"by_name": []}, "by_name is a list, not an object"),
                ({"maybe": {"x": None}}, "maybe.x is null, not a number"),
                ({"either": 1.5}, "either is 1.5, which does not belong there"),
                ({"word": "PASS"}, "word is 'PASS', not 'pass' or 'fail'"),
                ({"path": 5}, "path is a number, not a text")]:
            with self.subTest(text=text), self.assertRaises(decoding.Wrong) as raised:
                decoding.decode(Everything, value)
            self.assertIn(text, str(raised.exception))
        self.assertEqual(decoding.decode(Everything, {"pair": [-2**63, True]}).pair[0], -2**63)


class Files(ToolTest):
    def refuses(self, text, call, *arguments):
        with self.assertRaises(errors.Unreadable) as raised:
            call(*arguments)
        self.assertIn(text, str(raised.exception))

    def test_regular_files_only(self):
        os.mkfifo(self.dir / "fifo")
        with socket.socket(socket.AF_UNIX) as end:
            end.bind(str(self.dir / "socket"))
        (self.dir / "loop").symlink_to("loop")
        for name, text in [("fifo", "fifo: it is no regular file"), ("/dev/zero", "no regular file"),
                           (self.dir, "it is a folder"), ("none", "No such file"), ("a\0b", "null"),
                           ("socket", "cannot read"), ("loop", "symbolic links")]:
            for call in (files.read_regular, files.open_regular, files.size_of_regular):
                with self.subTest(name=name, call=call):
                    self.refuses(text if call is not files.size_of_regular else "cannot read",
                                 call, self.dir / name)
        self.refuses("cannot read the log none", files.read_regular, "none", "the log")

    def test_sizes(self):
        path = self.write("five", b"12345")
        self.assertEqual((files.read_regular(path, largest=5), files.size_of_regular(path)),
                         (b"12345", 5))
        self.refuses("more than the 4 bytes", files.read_regular, path, "", 4)
        self.assertIn(b"Name:", files.read_regular("/proc/self/status"))  # says that it is empty

    def test_versions(self):
        form = json_files.Format("quilmrun-x", 3, "make it again", oldest=2)
        head = '{"format": "quilmrun-x", "version": '
        for content, text in [
                (head + "3", "not JSON, or was cut short: make it again"),
                ("[" * 100_000, "nested too deeply: make it again"), ("[]", "not written by quilmrun-x"),
                ('{"format": "quilmrun-y"}', "not written by quilmrun-x"),
                ('{"format": "quilmrun-x"}', "names no version"), (head + "true}", "names no version"),
                (head + "4}", "version 4, and 3 is the newest"), (head + "1}", "and 2 is the oldest"),
                (head + "1" * 5000 + "}", "not JSON"), (head + "1" * 50 + "}", "of many digits"),
                (head + '3, "x": NaN}', "not JSON"), (head + "0}", "names no version"),
                (head + '3, "x": "\\ud800\\n"}', "x is '\\ud800\\n', not a number; make it again")]:
            path = self.write("x.json", content)
            with self.subTest(text=text):
                self.refuses(text, json_files.read_json, path, form, Point)
        for version in "23":
            path = self.write("x.json", head + version + ', "x": 1, "later": {}}')
            self.assertEqual(json_files.read_json(path, form, Point), Point(1))

    def test_own_files(self):
        marker = b"made by us"
        mine = self.write("mine", b"x" * 4087 + marker + b" end")
        for path, text in [(mine, "did not make it"), (str(self.dir), "name a file in a folder"),
                           (str(self.dir / "no/file"), "name a file in a folder")]:
            self.refuses(text, own_files.write_own, path, b"new", marker, "us")
        self.assertIn(b"end", pathlib.Path(mine).read_bytes())
        for content in (b"", b"x" * 4086 + marker):
            self.write("ours", content)
            own_files.write_own(str(self.dir / "ours"), b"new", marker, "us")
            self.assertEqual((self.dir / "ours").read_bytes(), b"new")
        mask = os.umask(0o027)
        self.addCleanup(os.umask, mask)
        own_files.write_own(str(self.dir / "fresh"), b"new", marker, "us")
        self.assertEqual((self.dir / "fresh").stat().st_mode & 0o777, 0o640)
        self.assertEqual(sorted(os.listdir(self.dir)), ["fresh", "mine", "ours", "out"])


if __name__ == "__main__":
    unittest.main()
