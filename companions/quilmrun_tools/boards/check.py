"""--check: what there is on every board, one line each."""

from __future__ import annotations

import os
import secrets
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field, replace
from pathlib import Path

from quilmrun_tools.artifacts.run_log import parse_log
from quilmrun_tools.boards.attempt import Attempt
from quilmrun_tools.boards.connection import Connection
from quilmrun_tools.boards.job import clean_board
from quilmrun_tools.boards.plan import Plan, Slice
from quilmrun_tools.boards.settings import Settings
from quilmrun_tools.boards.tool_command import parse_command
from quilmrun_tools.boards.tools import checksum, tool_for
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.executable import find_quilmrun
from quilmrun_tools.common.streams import Streams

_AT_ONCE = 50
_CLOCK_OFF = 2.0  # seconds from which on a clock is worth a word


@dataclass
class Fitness:
    """What a board said of itself."""
    host: str
    processor: str = ""
    facts: dict[str, str] = field(default_factory=dict)
    clock_off: float = 0.0  # seconds ahead of this machine's
    model: str = ""  # what the model takes, when it was asked
    problem: str = ""  # why it is not fit

    def line(self) -> str:
        """For people."""
        if not self.processor:
            return f"{self.host}: not fit: {self.problem}"
        library = self.facts.get("library", "").split(" ", 1)
        parts = [self.processor, self.facts.get("libc", "") or "libc unknown",
                 f"{int(self.facts.get('disk') or 0) // 1024:,} MB free", self._clock(),
                 f"media memory {self.facts['media']}" if self.facts.get("media") else
                 "no media memory",
                 f"libquilm.so {library[1]} {library[0][:12]}" if len(library) > 1 and library[1]
                 else "no libquilm.so", *([self.model] if self.model else [])]
        return f"{self.host}: {'not fit: ' + self.problem if self.problem else 'fit'}: " + \
            ", ".join(parts)

    def _clock(self) -> str:
        if abs(self.clock_off) < _CLOCK_OFF:
            return "clock right"
        return f"clock {abs(self.clock_off):.0f} s {'ahead' if self.clock_off > 0 else 'behind'}"


def check_boards(settings: Settings, words: list[str], streams: Streams) -> int:
    """Shows a line for each board; the status says whether all are fit."""
    plan = _plan(settings, words)
    with ThreadPoolExecutor(min(len(settings.hosts), _AT_ONCE)) as pool:
        fit = True
        for board in pool.map(lambda host: _check(plan, host, bool(words)), settings.hosts):
            streams.say(board.line())
            fit = fit and not board.problem
    return int(Status.YES if fit else Status.NO)


def _plan(settings: Settings, words: list[str]) -> Plan:
    try:
        here = find_quilmrun(None)
    except Unreadable:
        here = ""
    command = parse_command(words or ["quilmrun"], "mj" if words else "")
    plan = settings.plan(secrets.token_hex(8), command.words, here)
    if words:
        plan.model_sha256 = checksum(command.last("m"))
    return plan


def _check(plan: Plan, host: str, describe: bool) -> Fitness:
    board = Fitness(host)
    begin = time.time()

    def hear(word: str, rest: str) -> None:
        if word == "hello":
            board.processor = rest.split(" ")[0]
        elif word == "fact":
            name, _, value = rest.partition(" ")
            board.facts[name] = value
        elif word == "fail":
            board.problem = rest

    connection = Connection(plan, host, "facts", os.path.dirname(os.path.dirname(plan.remote_tool)))
    connection.run(hear, lambda _: None, lambda: False)
    if board.facts.get("clock", "").isdecimal():
        board.clock_off = int(board.facts["clock"]) - (begin + time.time()) / 2
    if not board.processor:
        board.problem = board.problem or connection.problem or connection.noise or "no answer"
    elif not board.problem:
        board.problem = _find_problem(plan, board)
    if describe and not board.problem:
        _describe(plan, board)
    return board


def _find_problem(plan: Plan, board: Fitness) -> str:
    if not plan.remote_tool:
        try:
            tool_for(board.processor, plan.tools, plan.local_tool, plan.record)
        except Unreadable as error:
            return str(error)
    return "" if board.facts.get("library", " ").split(" ", 1)[-1] else \
        "no libquilm.so; name its folder with --remote-library-path"


def _describe(plan: Plan, board: Fitness) -> None:
    """Starts the tool with an empty list, in a folder of its own on each board."""
    plan = replace(plan, run=secrets.token_hex(8))
    with tempfile.TemporaryDirectory(prefix="quilmrun-boards-") as name:
        came = Attempt(plan, board.host, Slice(0, 0, 0, ()), f"part-0-check-0-{os.getpid()}",
                       Path(name) / "check").run(lambda _: None, lambda: False)
    clean_board(plan, board.host)
    if came.tried.outcome != "done":
        board.problem = came.tried.reason
        return
    log = parse_log(os.fsdecode(came.cut.head + came.cut.count + came.cut.tail))
    board.model = "model " + " ".join(f"{tensor.name}[{','.join(map(str, tensor.dims))}]"
                                      for tensor in log.data_inputs)
