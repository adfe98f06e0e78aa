"""A job of GNU parallel: runs one part on whatever board is free, until it is done or given up.

It ends with 0 when other parts may go on, and with 1 when nothing more is to begin.
"""

from __future__ import annotations

import hashlib
import os
import signal
import sys
import time
from array import array
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.board_results import Part, Try
from quilmrun_tools.boards import policy
from quilmrun_tools.boards.attempt import Attempt, Came
from quilmrun_tools.boards.connection import Connection
from quilmrun_tools.boards.latency import latency_of
from quilmrun_tools.boards.plan import Plan, Slice, real
from quilmrun_tools.boards.state import BoardState, State
from quilmrun_tools.boards.tools import checksum
from quilmrun_tools.common.errors import Unreadable

_KEPT = (("log.head", "head"), ("log.count", "count"), ("log.body", "body"), ("log.tail", "tail"))
UNSPLIT = "unsplit"  # why parts stop when the rest is to be done by one board


class Job:  # pylint: disable=too-few-public-methods
    """The work on one part."""

    def __init__(self, state: State, number: int, alive: Optional[int]) -> None:
        self._state = state
        self._plan: Plan = state.read_plan()
        self._number = number
        self._alive = alive  # a pipe that ends with the quilmrun-boards that started all this
        self._parent = os.getppid()
        self._signalled = False
        for kind in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(kind, self._note_signal)

    def _note_signal(self, *_: object) -> None:
        self._signalled = True

    def _is_stopped(self) -> bool:
        """Whether somebody wants an end, or nobody waits for this any more."""
        return (self._signalled or os.getppid() != self._parent or self._has_lost_owner()
                or bool(self._state.stopped))

    def _has_lost_owner(self) -> bool:
        if self._alive is None:
            return False
        try:
            return os.read(self._alive, 1) == b""
        except BlockingIOError:
            return False

    def run(self) -> int:
        """The job's exit status."""
        if self._state.receipt(self._number):
            return 0
        one = self._state.read_slice(self._number)
        while not self._is_stopped():
            tries = self._state.tries(self._number)
            if policy.is_given_up(tries):
                return 0
            taken = self._take_board(tries)
            if taken is None:
                self._state.stop("no board is left")
                return 1
            index, lock = taken
            try:
                if self._try(one, index, len(tries)):
                    return 1 if self._state.stopped else 0
            finally:
                self._state.tell(index, -1, -1)
                os.close(lock)
        return 1

    def _take_board(self, tries: list[Try]) -> Optional[tuple[int, int]]:
        """(board, its lock); None when all boards are left out, or there is no time for one."""
        while not self._is_stopped():
            boards = {index: self._state.board(index) for index in range(len(self._plan.hosts))}
            found = policy.candidates(boards, self._plan.hosts, tries)
            if not found:
                return None
            if tries:
                found = policy.proven(boards, found, self._state.failed_at(self._number)) or \
                    ([] if self._others_work() else found)
            for index in found:
                lock = self._state.try_board(index)
                if lock is None:
                    continue
                if not self._state.board(index).left_out:
                    return index, lock
                os.close(lock)
            time.sleep(0.2)
        return None

    def _others_work(self) -> bool:
        """Whether another job has a board, which may show that it is there."""
        locks = [self._state.try_board(index) for index in range(len(self._plan.hosts))]
        for lock in locks:
            if lock is not None:
                os.close(lock)
        return None in locks

    # ---- One try ----------------------------------------------------------------------------

    def _try(self, one: Slice, index: int, number: int) -> bool:
        """Whether the part is done, or the run over."""
        board, host = self._state.board(index), self._plan.hosts[index]
        self._wait(float(board.in_a_row))
        self._state.tell(index, self._number, 0)
        name = f"part-{index}-{self._number}-{number}-{os.getpid()}"
        attempt = Attempt(self._plan, host, one, name, self._state.part(self._number) / "incoming")
        came = attempt.run(lambda at: self._state.tell(index, self._number, at), self._is_stopped)
        if came.tried.outcome == "done":
            self._finish(one, index, came)
            return True
        self._note_failure(index, board, came, number)
        return bool(self._state.stopped)

    def _wait(self, seconds: float) -> None:
        """A board that has just failed may be about to come back."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and not self._is_stopped():
            time.sleep(0.1)

    def _note_failure(self, index: int, board: BoardState, came: Came, number: int) -> None:
        tried = came.tried
        if tried.outcome == policy.STOPPED:
            return
        log = ""
        if came.log:
            log = f"tries/{self._number:06d}.{number}.txt"
            (self._state.root / log).write_bytes(b"".join(
                (came.cut.head, came.cut.count, came.cut.body, came.cut.tail, came.said)))
        tried = Try(tried.board, tried.outcome, tried.reason, tried.seconds,
                    f"{self._state.root.name}/{log}" if log else "", tried.error)
        tries = self._state.add_try(self._number, tried)
        reason = tried.reason if came.is_unfit else policy.after_failure(board, tried.reason)
        self._state.change_board(
            index, in_a_row=board.in_a_row + 1, failures=board.failures + 1, left_out=reason,
            processor=came.processor or board.processor, library=came.library or board.library)
        left = sum(1 for other in range(len(self._plan.hosts))
                   if not self._state.board(other).left_out)
        error = policy.fault_of_run(tries, left)
        if error is not None:
            keep_texts(self._state.part(self._number), came)
            self._state.stop(f"error: {error}")

    def _finish(self, one: Slice, index: int, came: Came) -> None:
        """Moves the outputs to their place; from the receipt on the part counts."""
        state, folder = self._state, self._state.part(self._number)
        inputs = inputs_checksum(one)
        place_outputs(folder / "incoming", state.out, one)
        keep_texts(folder, came)
        durations, source = list(came.paces), "stamps"
        (folder / "durations").write_bytes(array("d", durations).tobytes())
        tries = (*state.tries(self._number), came.tried)
        part = Part(one.number, one.first, one.inferences, self._plan.hosts[index], tries,
                    came.tried.seconds, 0, sha256=came.sha256,
                    latency=latency_of(durations, source))
        state.write_receipt(part, inputs)
        state.change_board(index, in_a_row=0, done_at=time.time(), processor=came.processor,
                           tool=came.tool, library=came.library)
        if any(inference.reset for inference in came.inferences) and \
                one.first + one.inferences < self._plan.inferences:
            (folder / UNSPLIT).touch()
            state.stop(UNSPLIT)


def keep_texts(folder: Path, came: Came) -> None:
    """What is needed of a part beside its outputs."""
    for name, section in _KEPT:
        (folder / name).write_bytes(getattr(came.cut, section))
    for name, text in (("err.txt", came.said), ("memory_data.csv", came.memory_report),
                       ("record.json", came.record)):
        if text:
            (folder / name).write_bytes(text)


def place_outputs(incoming: Path, out: Path, one: Slice) -> None:
    """Moves the folders of all inferences to where one run would have put them."""
    source, target = os.fsencode(incoming), os.fsencode(out)
    for run in range(one.inferences):
        there, here = source + b"/%d" % run, target + b"/%d" % (one.first + run)
        try:
            os.rename(there, here)
        except FileNotFoundError:  # a model without outputs
            os.makedirs(here, exist_ok=True)
        except OSError:  # of an earlier quilmrun-boards that was ended here
            remove_outputs(here)
            os.rename(there, here)
    os.rmdir(source)


def remove_outputs(folder: bytes) -> None:
    """Removes an inference's folder. REQUIRES: everything in it is an output of this run."""
    if os.path.isdir(folder):
        for name in os.listdir(folder):
            os.unlink(folder + b"/" + name)
        os.rmdir(folder)


def inputs_checksum(one: Slice) -> str:
    """Of the contents that a part was made of, in their order."""
    known: dict[bytes, str] = {}
    digest = hashlib.sha256()
    for entry in one.entries:
        if entry not in known:
            path = real(entry)
            known[entry] = checksum(path) if os.path.isfile(path) else "none"
        digest.update(known[entry].encode())
    return digest.hexdigest()


def clean(state: State, index: int) -> None:
    """Removes what the run left on a board; what cannot be removed is noted."""
    plan = state.read_plan()
    reason = clean_board(plan, plan.hosts[index])
    if reason:
        (state.root / f"boards/{index}.unclean").write_text(reason, errors="surrogateescape")


def clean_board(plan: Plan, host: str) -> str:
    """Removes the folder of a run on a board; returns why not."""
    said: list[str] = []
    connection = Connection(plan, host, "clean", "")
    status = connection.run(lambda word, rest: said.append(rest) if word == "fail" else None,
                            lambda _: None, lambda: False)
    return (said or [connection.problem or connection.noise or "no answer"])[0] if status else ""


def main() -> int:
    """Argument: the number of a part."""
    os.chdir(os.environ["QUILMRUN_BOARDS_FROM"])  # where the paths of the command begin
    alive = int(os.environ["QUILMRUN_BOARDS_ALIVE"])
    os.set_blocking(alive, False)
    state = State(os.environ["QUILMRUN_BOARDS_OUT"])
    with state.job():
        try:
            return Job(state, int(sys.argv[1]), alive).run()
        except Unreadable as error:
            state.stop(f"error: {error}")
            return 1
