"""The folder of -o: new, empty, or made by quilmrun-boards, and used by one of these at a time."""

from __future__ import annotations

import fcntl
import os
import re
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator, Optional

from quilmrun_tools.artifacts.board_results import (FILE_NAME, BoardResults,
                                                    read_board_results)
from quilmrun_tools.boards import state as states
from quilmrun_tools.boards.job import remove_outputs
from quilmrun_tools.boards.state import State
from quilmrun_tools.common.errors import Unreadable

_OUTPUT = re.compile(rb".+\.\d+\.\d+\.(bin|float)", re.DOTALL)
_OWN = ("log.txt", "record.json", FILE_NAME)


@contextmanager
def opened(out: str, resume: bool) -> Iterator[tuple[State, Optional[BoardResults]]]:
    """The folder and what an earlier quilmrun-boards says of it. What a finished run left is
    removed, unless it is to be resumed; an unfinished one has to be resumed."""
    earlier = _earlier(Path(out), resume)
    state = State(out)
    try:
        state.create()
    except OSError as error:
        raise Unreadable(f"cannot write to {out}: {error.strerror}") from error
    lock = states.take_lock(state.root / "lock", fcntl.LOCK_EX)
    if lock is None:
        raise Unreadable(f"another quilmrun-boards is at work in {out}")
    try:
        if not state.wait_for_jobs(60):
            raise Unreadable(f"jobs of an earlier quilmrun-boards are still at work in {out}")
        if earlier and not resume:
            _remove(Path(out), earlier)
            earlier = None
        yield state, earlier
    finally:
        os.close(lock)


def _earlier(out: Path, resume: bool) -> Optional[BoardResults]:
    if not out.exists():
        out.mkdir(parents=True)
    if not out.is_dir():
        raise Unreadable(f"{out} is not a folder: name another one with -o")
    names = set(os.listdir(out))
    if FILE_NAME in names:
        earlier = read_board_results(str(out))
        if not resume and (out / states.NAME / "plan.json").exists():
            raise Unreadable(f"{out} holds a run that is not finished: go on with --resume, or "
                             "name another folder with -o")
        return earlier
    if names - {states.NAME}:
        raise Unreadable(f"{out} holds files that quilmrun-boards did not make: name a new or "
                         "empty folder with -o")
    return None


def _remove(out: Path, earlier: BoardResults) -> None:
    """Removes the outputs of a run that quilmrun-boards made here, and nothing else."""
    folders = [os.fsencode(out / str(run)) for run in range(earlier.inferences)]
    for folder in folders:
        for name in os.listdir(folder) if os.path.isdir(folder) else ():
            if not _OUTPUT.fullmatch(name):
                raise Unreadable(f"{os.fsdecode(folder)} holds {os.fsdecode(name)}, which "
                                 "quilmrun-boards did not make: name another folder with -o")
    for folder in folders:
        remove_outputs(folder)
    for own in _OWN:
        (out / own).unlink(missing_ok=True)
