"""The tool's log of one part, as it comes from a board: its sections, with the paths of this side,
and what it says of every inference."""

from __future__ import annotations

import os
import re
from dataclasses import dataclass, field
from typing import Mapping, Optional, Sequence

from quilmrun_tools.boards.plan import OutputShape

# What the tool says between the paths of the inputs, which come first, and the inferences.
_COUNT = re.compile(rb"(?:^\[INFO\]  inputPath: .*\n)*"
                    rb"((?:^(?:\[INFO\]  create model output success|\[WARN\]  \d+ rpn files.*)\n)*"
                    rb"^\[INFO\]  Model inputNum: \d+\n)^\[INFO\]  Model Iters : \d+\n", re.M)
_DUMPED = b"[INFO]  dump data success\n"
_ERROR = re.compile(rb"^\[ERROR\] (.*)$", re.M)
_COURSE = re.compile(
    rb"^(?:\[WARN\]  quilm_mdl_set_dynamic_batch_size set batchsize to (?P<batch>\d+)"
    rb"|\[WARN\]  Reset (?P<reset>)the batchSize to \[\d+\]"
    rb"|\[INFO\]  The value of quilm_(?P<output>)data_type is \[\d+\]"
    rb"|\[ERROR\] GetOutput(?P<invalid>)WithOutStride fail"
    rb"|\[ERROR\] create output(?P<unwritten>) file \[.*"
    rb"|\[INFO\]  dump data(?P<dumped>) success)$", re.M)


@dataclass(frozen=True)
class Paths:
    """What the tool was given on the board, below its folder there, and what that is here."""
    folder: bytes  # the run's, on the board
    typed: Mapping[bytes, bytes]  # by the path below the folder: as the user typed it
    resolved: Mapping[bytes, bytes]  # as the tool would resolve it here
    outputs: bytes  # the folder of outputs on the board, below its folder
    out: bytes  # and as typed here
    first: int  # the number that inference 0 there has here

    def translate(self, text: bytes) -> bytes:
        """A text of the board with the paths of this side."""
        pattern = re.compile(rb"(^\[INFO\]  inputPath: )?%s/(?:%s/(\d+)(?=/)|([-\w]+(?:/[\w.]+)*))"
                             % (re.escape(self.folder), re.escape(self.outputs)), re.M)
        return pattern.sub(self._here, text)

    def _here(self, match: re.Match[bytes]) -> bytes:
        shown, run, path = match.groups()
        if run is not None:
            return b"%s%s/%d" % (shown or b"", self.out, self.first + int(run))
        paths = self.typed if shown else self.resolved
        return (shown or b"") + paths[path] if path in paths else match.group()


@dataclass(frozen=True)
class Sections:
    """A log in three: up to the input paths, all inferences that have outputs, the rest. Without
    a model that could be described everything is in the first."""
    head: bytes
    count: bytes  # the lines ahead of that with the number of inferences
    body: bytes
    tail: bytes


def sections(text: bytes) -> Sections:
    """Cuts a log as it came from the board."""
    found = _COUNT.search(text)
    if not found:
        return Sections(text, b"", b"", b"")
    end = text.rfind(_DUMPED, found.end())
    end = found.end() if end < 0 else end + len(_DUMPED)
    return Sections(text[:found.start()], found.group(1), text[found.end():end], text[end:])


def first_error(text: bytes) -> str:
    """The first error that the tool told of; empty when there is none."""
    found = _ERROR.search(text)
    return os.fsdecode(found.group(1)) if found else ""


@dataclass
class Inference:
    """What the log says of one."""
    values: list[Optional[int]] = field(default_factory=list)  # of each output, None: no files
    reset: bool = False  # of the batch size
    unwritten: bool = False  # a file could not be created


def course(body: bytes, shapes: Sequence[OutputShape], batch: int) -> list[Inference]:
    """Every inference that has outputs, with the values that their files must hold."""
    found, current = [], Inference()
    for match in _COURSE.finditer(body):
        kind = match.lastgroup
        if kind == "batch":
            batch = int(match.group("batch"))
        elif kind == "reset":
            current.reset = True
        elif kind == "output":
            at = len(current.values)
            current.values.append(shapes[at].rows * batch * shapes[at].row_values
                                  if at < len(shapes) else None)
        elif kind == "invalid" and current.values:
            current.values[-1] = None
        elif kind == "unwritten":
            current.unwritten = True
        elif kind == "dumped":
            found.append(current)
            current = Inference()
    return found
