"""A run from its command to its results. What an earlier try has done is not done again."""

from __future__ import annotations

import hashlib
import json
import os
import secrets
import time
from array import array
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.board_results import FILE_NAME, BoardResults, Part, Try
from quilmrun_tools.artifacts.record import read_record
from quilmrun_tools.artifacts.record_merging import RecordPart, merge_records
from quilmrun_tools.artifacts.run_log import RunLog, parse_log
from quilmrun_tools.boards import job, merge, policy
from quilmrun_tools.boards.attempt import Attempt, Came
from quilmrun_tools.boards.engine import run_jobs
from quilmrun_tools.boards.input_list import check_lengths, group_by_name, read_input_list
from quilmrun_tools.boards.latency import latency_of
from quilmrun_tools.boards.plan import Slice, cut, part_size
from quilmrun_tools.boards.settings import Settings
from quilmrun_tools.boards.shapes import shapes_of
from quilmrun_tools.boards.state import BoardState, State
from quilmrun_tools.boards.tool_command import ToolCommand
from quilmrun_tools.boards.tools import checksum
from quilmrun_tools.boards.watch import Watch
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.own_files import check_own, write_own
from quilmrun_tools.common.streams import Streams

RECORD_NAME = "record.json"
_MEMORY_REPORT = "memory_data.csv"
_MEMORY_MARKER = b"Model Load Time(ms),"


class BoardRun:
    """One run in a folder that is this process's alone."""

    def __init__(self, settings: Settings, command: ToolCommand, local_tool: str, state: State,
                 earlier: Optional[BoardResults], streams: Streams) -> None:
        self._settings = settings
        self._command = command
        self._state = state
        self._streams = streams
        self._entries = read_input_list(command.last("i"))
        check_lengths(self._entries)
        run = earlier.run if earlier else secrets.token_hex(8)
        self._plan = settings.plan(run, command.words, local_tool)
        self._results = BoardResults(
            _now(), run, command.words, self._checksums(), 0, 0, int(Status.NO), "not finished")
        if earlier:
            self._compare(earlier)
        self._failing: Optional[int] = None

    # ---- What is run ------------------------------------------------------------------------

    def _checksums(self) -> dict[str, str]:
        """Of all that the results depend on but the inputs, which come with their parts."""
        command = self._command
        options = [[command.last(letter) for letter in "btp"], self._settings.without_text,
                   self._settings.record]
        found = {"model": checksum(command.last("m")), "settings": checksum(command.last("j")),
                 "list": checksum(command.last("i")),
                 "rpn": " ".join(checksum(path) for path in command.rpn),
                 "options": hashlib.sha256(json.dumps(options).encode()).hexdigest()}
        self._plan.model_sha256 = found["model"]
        return found

    def _compare(self, earlier: BoardResults) -> None:
        for name, value in self._results.checksums.items():
            if earlier.checksums.get(name) != value:
                raise Unreadable(f"the {name} of the run that is to be resumed differed: begin "
                                 "again in another folder")

    def _check_inputs(self) -> None:
        """Of parts that are done the inputs have to be the same, and the outputs there."""
        for number in self._state.numbers():
            found, one = self._state.receipt(number), self._state.read_slice(number)
            if not found:
                continue
            if found[1] != job.inputs_checksum(one):
                raise Unreadable("the inputs of the run that is to be resumed differed: begin "
                                 "again in another folder")
            if not all((self._state.out / str(run)).is_dir()
                       for run in range(one.first, one.first + one.inferences)):
                (self._state.part(number) / "receipt.json").unlink()

    def prepare(self) -> bool:
        """Finds out what the model takes and cuts the list into parts. False when no board could
        tell; then the failure is noted."""
        self._write_results([])
        (self._state.root / "stop").unlink(missing_ok=True)
        for path in (self._state.root / "boards").iterdir():
            path.unlink()
        if (self._state.root / "entries").exists():
            self._take_up()
            return True
        description = self._describe()
        if description is None:
            return False
        names = [os.fsencode(tensor.name) for tensor in description.data_inputs]
        self._entries = group_by_name(self._entries, names)
        files = description.input_files_per_group
        total = len(self._entries) // files if files else 0
        self._plan.outputs = shapes_of(description, self._command)
        self._plan.inferences = total
        size = self._settings.part or part_size(total, len(self._plan.hosts), self._plan.outputs,
                                                self._command.batch)
        for one in cut(self._entries, files, size):
            self._state.write_slice(one)
        self._results.inferences, self._results.files_per_inference = total, files
        self._write_results([])
        self._state.write_plan(self._plan)
        self._state.write_entries(self._entries)
        return True

    def _take_up(self) -> None:
        """Goes on with the parts of an earlier time, on the boards of now."""
        old = self._state.read_plan()
        self._plan.outputs, self._plan.inferences = old.outputs, old.inferences
        self._state.write_plan(self._plan)
        text = (self._state.root / "entries").read_bytes()
        self._entries = text.split(b"\0") if text else []
        for number in self._state.numbers():
            (self._state.part(number) / "tries.json").unlink(missing_ok=True)
            if not self._state.receipt(number):
                (self._state.part(number) / "log.head").unlink(missing_ok=True)
        self._check_inputs()
        self._results.inferences = self._plan.inferences

    def _describe(self) -> Optional[RunLog]:
        """A run without inferences, on the first board that can."""
        boards = {index: BoardState() for index in range(len(self._plan.hosts))}
        tries: list[Try] = []
        while True:
            found = policy.candidates(boards, self._plan.hosts, tries)
            if not found:
                self._state.stop("no board could describe the model")
                return None
            index = found[0]
            attempt = Attempt(self._plan, self._plan.hosts[index], Slice(0, 0, 0, ()),
                              f"part-{index}-describe-{len(tries)}-{os.getpid()}",
                              self._state.root / "describe")
            came = attempt.run(lambda at: None, lambda: False)
            if came.tried.outcome == "done":
                return parse_log(os.fsdecode(came.cut.head + came.cut.count + came.cut.tail))
            tries.append(came.tried)
            self._note_board(index, boards, came)
            left = sum(1 for board in boards.values() if not board.left_out)
            error = policy.fault_of_run(tries, left)
            if error is not None:
                self._state.part(0).mkdir(exist_ok=True)
                job.keep_texts(self._state.part(0), came)
                self._state.stop(f"error: {error}")
                return None

    def _note_board(self, index: int, boards: dict[int, BoardState], came: Came) -> None:
        board, reason = boards[index], came.tried.reason
        left_out = reason if came.is_unfit else policy.after_failure(board, reason)
        boards[index] = self._state.change_board(
            index, in_a_row=board.in_a_row + 1, failures=board.failures + 1, left_out=left_out,
            processor=came.processor)

    # ---- The parts --------------------------------------------------------------------------

    def work(self) -> str:
        """Runs what is missing. Returns why it was not all; empty when it was."""
        while True:
            waiting = [number for number in self._state.numbers()
                       if not self._state.receipt(number)]
            if not waiting:
                return ""
            watch = Watch(self._state, self._plan, self._streams)
            slots = min(len(self._plan.hosts), len(waiting))
            reason = run_jobs(self._state, map(str, waiting), slots, watch.look)
            watch.end()
            if self._state.stopped != job.UNSPLIT or not self._unsplit():
                return reason or self._why_stopped()

    def _why_stopped(self) -> str:
        stopped = self._state.stopped
        if stopped:
            return stopped.removeprefix("error: ")
        gone = [number for number in self._state.numbers() if not self._state.receipt(number)]
        tries = self._state.tries(gone[0]) if gone else []
        return f"{tries[-1].board}: {tries[-1].reason}" if tries else ""

    def _unsplit(self) -> bool:
        """Makes one part of the rest, from the first one on whose batch size was reset. Parts
        ahead of it that are missing may reset it too; then this comes once more."""
        state = self._state
        first = min(number for number in state.numbers()
                    if (state.part(number) / job.UNSPLIT).exists())
        begin = state.read_slice(first).first
        self._streams.warn(f"the batch size was reset in part {first}, and the inferences after it "
                           f"go on with that: all from {begin} on are run by one board")
        step = self._results.files_per_inference or \
            len(state.read_slice(first).entries) // max(state.read_slice(first).inferences, 1)
        for number in [number for number in state.numbers() if number >= first]:
            one = state.read_slice(number)
            for run in range(one.first, one.first + one.inferences):
                job.remove_outputs(os.fsencode(state.out / str(run)))
            _remove_folder(state.part(number))
        rest = self._plan.inferences - begin
        state.write_slice(next(cut(self._entries, step, rest, begin, first)))
        (state.root / "stop").unlink()
        self._results.unsplit_from = begin
        return True

    # ---- The results ------------------------------------------------------------------------

    def finish(self, reason: str) -> int:
        """Puts together what there is, and tidies up here and on the boards."""
        state = self._state
        parts = [self._by_record(self._part(number)) for number in state.numbers()]
        done = [part for part in parts if part.board]
        leading = _leading(done)
        complete = bool(parts) and len(done) == len(parts)
        placed = self._write_log(leading, complete)
        by_number = {part.number: part for part in placed}
        parts = [by_number.get(part.number, part) for part in parts]
        self._results.status = int(Status.YES if complete else Status.NO)
        self._results.reason = "" if complete else reason or "not all parts are done"
        self._results.checksums["inputs"] = self._inputs_checksum(parts)
        if leading:
            self._write_memory_report(leading[-1].number)
        if self._settings.record:
            self._merge_records(leading)
        self._results.boards = merge.boards_of(state, self._plan, done)
        self._write_results(parts)
        self._clean_boards()
        if complete:
            merge.drop_state(state)
        else:
            self._say_what_is_missing(parts)
        return self._results.status

    def _part(self, number: int) -> Part:
        found = self._state.receipt(number)
        if found:
            return found[0]
        try:
            one = self._state.read_slice(number)
        except FileNotFoundError:  # nobody could describe the model
            return Part(number, 0, 0)
        return Part(number, one.first, one.inferences, tries=tuple(self._state.tries(number)))

    def _by_record(self, part: Part) -> Part:
        """With what the record says of executions, instead of the time stamps of outputs."""
        path = self._state.part(part.number) / RECORD_NAME
        if not part.board or not path.exists():
            return part
        durations = array("d", read_record(path).durations("execute"))
        (self._state.part(part.number) / "durations").write_bytes(durations.tobytes())
        return replace(part, latency=latency_of(durations, "record"))

    def _write_log(self, leading: list[Part], complete: bool) -> list[Part]:
        """log.txt, and the same on standard output."""
        failing = None if complete else next(
            (number for number in self._state.numbers() if not self._state.receipt(number)
             and (self._state.part(number) / "log.head").exists()), None)
        follows = failing is not None and failing == len(leading)
        path = self._state.out / merge.LOG_NAME
        with open(path, "wb") as file:
            placed = merge.write_log(self._state, self._plan, leading, self._entries, failing,
                                     follows, file)
        out = getattr(self._streams.out, "buffer", None)
        self._streams.out.flush()
        merge.show(path, out.write if out else
                   lambda text: self._streams.out.write(os.fsdecode(text)))
        errors = getattr(self._streams.err, "buffer", None)
        if errors:
            merge.copy_said(self._state, [part.number for part in leading]
                            + ([failing] if failing is not None else []), errors.write)
        return placed

    def _write_memory_report(self, number: int) -> None:
        source = self._state.part(number) / _MEMORY_REPORT
        if source.exists():
            write_own(memory_report_path(self._command), source.read_bytes(), _MEMORY_MARKER,
                      "quilmrun")

    def _merge_records(self, parts: list[Part]) -> None:
        found = [RecordPart(str(self._state.part(part.number) / RECORD_NAME), part.first,
                            part.board) for part in parts]
        if found:
            with open(self._state.out / RECORD_NAME, "wb") as file:
                merge_records(found, self._command.words, file)

    def _inputs_checksum(self, parts: list[Part]) -> str:
        digest = hashlib.sha256()
        for part in parts:
            found = self._state.receipt(part.number)
            digest.update(found[1].encode() if found else b"none")
        return digest.hexdigest()

    def _write_results(self, parts: list[Part]) -> None:
        self._results.parts = parts
        self._results.write(str(self._state.out / FILE_NAME), self._streams.out)

    def _clean_boards(self) -> None:
        """Removes the run's folder on every board that was there."""
        if self._plan.keep:
            return
        self._state.write_plan(self._plan)
        used = [index for index in range(len(self._plan.hosts))
                if self._state.board(index).processor or self._state.board(index).failures
                or index == 0]
        with ThreadPoolExecutor(16) as pool:
            list(pool.map(lambda index: job.clean(self._state, index), used))
        for index in used:
            note = self._state.root / f"boards/{index}.unclean"
            if note.exists():
                self._streams.warn(f"{self._plan.hosts[index]} may still have "
                                   f"{self._plan.remote_dir}/quilmrun-{self._plan.run}: "
                                   f"{note.read_text(errors='surrogateescape')}")
                note.unlink()

    def _say_what_is_missing(self, parts: list[Part]) -> None:
        for board in self._results.boards:
            if board.left_out:
                self._streams.warn(f"{board.name} was left out: {board.left_out}")
        missing = sum(part.inferences for part in parts if not part.board)
        what = f"{missing} of {self._results.inferences} inferences are missing" if missing else \
            "nothing was run"
        self._streams.complain(f"{what}: {self._results.reason}; --resume goes on")


def memory_report_path(command: ToolCommand) -> str:
    """Beside the JSON file, as the tool has it."""
    return os.path.join(os.path.dirname(os.path.realpath(command.last("j"))), _MEMORY_REPORT)


def check_memory_report(command: ToolCommand) -> None:
    """Raises Unreadable when the memory report could not be written."""
    check_own(memory_report_path(command), _MEMORY_MARKER, "quilmrun")


def _leading(parts: list[Part]) -> list[Part]:
    """The parts that follow each other from the first inference on."""
    found: list[Part] = []
    for part in parts:
        if part.first != sum(one.inferences for one in found):
            break
        found.append(part)
    return found


def _remove_folder(folder: Path) -> None:
    for root, folders, names in os.walk(folder, topdown=False):
        for name in names:
            os.unlink(os.path.join(root, name))
        for name in folders:
            os.rmdir(os.path.join(root, name))
    os.rmdir(folder)


def _now() -> str:
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
