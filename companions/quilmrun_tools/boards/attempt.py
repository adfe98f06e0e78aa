"""One try to run a part on a board, from the connection to outputs that are known to be whole."""
# Each attempt begins with its own state, which no other one sees.
# pylint: disable=attribute-defined-outside-init

from __future__ import annotations

import os
import shutil
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Optional, Sequence

from quilmrun_tools.artifacts.board_results import Try
from quilmrun_tools.boards.connection import Connection
from quilmrun_tools.boards.incoming import Incoming
from quilmrun_tools.boards.package import Package, command_of
from quilmrun_tools.boards.part_log import (Inference, Paths, Sections, course, first_error,
                                            sections)
from quilmrun_tools.boards.plan import Plan, Slice
from quilmrun_tools.boards.tools import tool_for
from quilmrun_tools.boards.ustar import Damaged
from quilmrun_tools.common.errors import Unreadable

_SSH_FAILED = 255


@dataclass
class Came:
    """What a try brought back."""
    tried: Try
    log: bytes = b""  # as it came
    cut: Sections = field(default_factory=lambda: Sections(b"", b"", b"", b""))  # paths as here
    said: bytes = b""  # on standard error, by tool and runtime
    memory_report: bytes = b""
    record: bytes = b""
    inferences: Sequence[Inference] = ()
    sha256: str = ""
    paces: Sequence[float] = ()
    processor: str = ""
    tool: str = ""
    library: str = ""
    is_unfit: bool = False  # the board cannot run the tool at all


class Attempt:  # pylint: disable=too-few-public-methods
    """A try. `tell` hears how many inferences are done; `stopped` says whether to give up."""

    def __init__(self, plan: Plan, host: str, one: Slice, name: str, folder: Path) -> None:
        self._plan = plan
        self._host = host
        self._slice = one
        self._name = name  # of its folder on the board
        self._folder = folder
        self._package = Package(plan, name, one)
        self._command = command_of(plan)
        self._paths: Optional[Paths] = None
        self._failed = ""  # what the far side's script said
        self._came = Came(Try(host, "unreachable", "", 0.0))
        self._tell: Callable[[int], None] = lambda at: None
        self._incoming = Incoming(folder, plan.outputs, one.inferences, not plan.without_text,
                                  self._describe)
        self._connection: Optional[Connection] = None

    def run(self, tell: Callable[[int], None], stopped: Callable[[], bool]) -> Came:
        """Leaves the outputs in the try's folder when they are whole, and otherwise nothing."""
        start = time.monotonic()
        self._tell = tell
        shutil.rmtree(self._folder, ignore_errors=True)
        self._folder.mkdir(parents=True)
        outcome, reason = self._talk(stopped)
        self._read_texts()
        said = self._came.cut.head + self._came.cut.tail
        error = first_error(said) if outcome == "failed" else ""
        if outcome != "done":
            shutil.rmtree(self._folder, ignore_errors=True)
        self._came.tried = Try(self._host, outcome, reason, round(time.monotonic() - start, 3), "",
                               error)
        return self._came

    # ---- The connection ---------------------------------------------------------------------

    def _talk(self, stopped: Callable[[], bool]) -> tuple[str, str]:
        """(outcome, reason)"""
        connection = Connection(self._plan, self._host, "part", self._name)
        self._connection = connection
        try:
            status = connection.run(self._hear, self._incoming.feed, stopped)
        except Damaged as error:
            return "incomplete", str(error)
        except Unreadable as error:  # no tool for its processor
            self._came.is_unfit = True
            return "failed", str(error)
        except OSError as error:
            return "incomplete", f"cannot write here: {error.strerror}"
        if connection.problem:
            stop = connection.problem == "stopped"
            return "stopped" if stop else "unreachable", connection.problem
        if not self._incoming.ended:
            return self._without_archive(status, connection.noise)
        return self._judge()

    def _without_archive(self, status: int, noise: str) -> tuple[str, str]:
        if self._failed:
            return "incomplete", self._failed
        reason = noise or "the connection ended"
        if self._paths is None and status != _SSH_FAILED:
            reason = f"no shell with dd and tar answered: {reason}"
        return "unreachable", reason

    def _hear(self, word: str, rest: str) -> None:
        if word == "hello":
            processor, have, folder = rest.split(" ", 2)
            tools = None if self._plan.remote_tool else tool_for(
                processor, self._plan.tools, self._plan.local_tool, self._plan.record)
            self._came.processor = processor
            self._came.tool = tools.sha256 if tools else self._plan.remote_tool
            self._paths = self._package.paths(folder, os.fsencode(self._command.last("o")))
            assert self._connection
            self._connection.send(self._package.archive(folder, have.split(","), tools))
        elif word == "at" and rest.isdecimal():
            self._tell(int(rest))
        elif word == "fact" and rest.startswith("library "):
            self._came.library = rest.split(" ")[1]
        elif word == "fail":
            self._failed = rest

    # ---- What came --------------------------------------------------------------------------

    def _describe(self, log: bytes) -> Sequence[Inference]:
        if self._came.inferences:
            return self._came.inferences
        body = sections(log).body
        self._came.inferences = course(body, self._plan.outputs, self._command.batch)
        return self._came.inferences

    def _judge(self) -> tuple[str, str]:
        """Of an archive that came to its end."""
        status, reason = self._status()
        if reason == "hung":
            return "hung", f"no inference was done within {self._plan.timeout} s"
        if reason == "lost":
            return "unreachable", "the connection was lost"
        log = self._incoming.files.get(b"log.txt", b"")
        if status != 0:
            return "failed", first_error(log) or self._why_not_run(status)
        missing = self._incoming.missing(self._describe(log))
        return ("incomplete", missing) if missing else ("done", "")

    def _status(self) -> tuple[int, str]:
        """The tool's exit status and why it was ended, if it was."""
        lines = self._incoming.files.get(b"status", b"").split(b"\n")
        words = dict(line.partition(b" ")[::2] for line in lines)
        number = words.get(b"status", b"")
        reason = words.get(b"reason", b"").decode("ascii", "replace")
        return int(number) if number.isdigit() else 1, reason

    def _why_not_run(self, status: int) -> str:
        if status > 128:
            return f"the tool was ended by signal {status - 128}"
        said = self._incoming.files.get(b"err.txt", b"").decode("utf-8", "surrogateescape").strip()
        return (said.splitlines() or [f"the tool ended with {status}"])[-1][:300]

    def _read_texts(self) -> None:
        files, came = self._incoming.files, self._came
        came.log = files.get(b"log.txt", b"")
        came.memory_report = files.get(b"memory_data.csv", b"")
        came.record = files.get(b"record.json", b"")
        came.sha256 = self._incoming.sha256()
        came.paces = self._incoming.paces()
        if self._paths:
            raw = sections(came.log)
            came.cut = Sections(*(self._paths.translate(text)
                                  for text in (raw.head, raw.count, raw.body, raw.tail)))
            came.said = self._paths.translate(files.get(b"err.txt", b""))
