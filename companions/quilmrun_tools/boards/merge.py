"""One run out of its parts: the log, the memory report, what each board did."""

from __future__ import annotations

import os
from array import array
from dataclasses import replace
from pathlib import Path
from typing import BinaryIO, Callable, Iterable, Optional, Sequence

from quilmrun_tools.artifacts.board_results import Board, Part
from quilmrun_tools.boards.latency import difference_from, latency_of
from quilmrun_tools.boards.plan import Plan
from quilmrun_tools.boards.state import State

LOG_NAME = "log.txt"


def write_log(state: State, plan: Plan, parts: Sequence[Part], entries: Iterable[bytes],
              failing: Optional[int], follows: bool, target: BinaryIO) -> list[Part]:
    """Writes the log of one run that did these parts, which follow each other from the first, and
    then met the failure of the part `failing`, if any, whose own inferences are shown only when it
    follows them. Returns the parts with their places in the log."""
    numbers = [part.number for part in parts] + ([] if failing is None else [failing])
    if not numbers:
        return []
    target.write(_text(state, numbers[0], "log.head"))
    count = _text(state, numbers[0], "log.count")
    if count:
        target.writelines(b"[INFO]  inputPath: %s\n" % entry for entry in entries)
        target.write(count + b"[INFO]  Model Iters : %d\n" % plan.inferences)
    placed = []
    for part in parts:
        body = _text(state, part.number, "log.body")
        placed.append(replace(part, log=LOG_NAME, log_offset=target.tell(), log_bytes=len(body)))
        target.write(body)
    if failing is not None and follows:
        target.write(_text(state, failing, "log.body"))
    target.write(_text(state, numbers[-1], "log.tail"))
    return placed


def _text(state: State, number: int, name: str) -> bytes:
    try:
        return (state.part(number) / name).read_bytes()
    except FileNotFoundError:
        return b""


def copy_said(state: State, numbers: Iterable[int], write: Callable[[bytes], object]) -> None:
    """Hands on what tool and runtime said on standard error."""
    for number in numbers:
        said = _text(state, number, "err.txt")
        if said:
            write(said)


def boards_of(state: State, plan: Plan, parts: Sequence[Part]) -> list[Board]:
    """What each board did."""
    durations = {host: _durations(state, [part for part in parts if part.board == host])
                 for host in plan.hosts}
    source = next((part.latency.source for part in parts if part.latency), "stamps")
    boards = []
    for index, host in enumerate(plan.hosts):
        known, mine = state.board(index), [part for part in parts if part.board == host]
        latency = latency_of(durations[host], source)
        others = latency_of([value for other, values in durations.items() if other != host
                             for value in values], source)
        boards.append(Board(host, known.processor, known.tool, known.library, len(mine),
                            sum(part.inferences for part in mine), known.failures,
                            round(sum(part.seconds for part in mine), 3), known.left_out, latency,
                            difference_from(latency, others)))
    return boards


def _durations(state: State, parts: Sequence[Part]) -> Sequence[float]:
    values = array("d")
    for part in parts:
        values.frombytes(_text(state, part.number, "durations"))
    return values


def show(path: Path, write: Callable[[bytes], object]) -> None:
    """Hands on a file that may be large."""
    with open(path, "rb") as file:
        while chunk := file.read(1 << 20):
            write(chunk)


def drop_state(state: State) -> None:
    """Removes what is only of use while a run may go on: all but the logs of failed tries."""
    for folder, folders, names in os.walk(state.root, topdown=False):
        if os.path.basename(folder) == "tries" and names:
            continue
        for name in names:
            if not (folder == str(state.root) and name == "lock"):
                os.unlink(os.path.join(folder, name))
        for name in folders:
            try:
                os.rmdir(os.path.join(folder, name))
            except OSError:  # the logs of failed tries
                pass
