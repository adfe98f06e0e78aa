"""Who does a part next, and when a run is over: decisions only, without files and connections."""

from __future__ import annotations

from typing import Mapping, Optional, Sequence

from quilmrun_tools.artifacts.board_results import Try
from quilmrun_tools.boards.state import BoardState

MOST_TRIES = 3  # of a part
MOST_IN_A_ROW = 3  # failures of a board
STOPPED = "stopped"  # the outcome of a try that nobody is to blame for


def candidates(boards: Mapping[int, BoardState], hosts: Sequence[str],
               tries: Sequence[Try]) -> list[int]:
    """The boards that may take a part next, the ones with the fewest recent failures. A part that
    has failed waits for one of these, and rather not for a board where it was."""
    there = [index for index, board in boards.items() if not board.left_out]
    if not tries:
        return sorted(there, key=lambda index: boards[index].in_a_row)
    tried = {one.board for one in tries if one.outcome != STOPPED}
    others = [index for index in there if hosts[index] not in tried] or there
    best = min((boards[index].in_a_row for index in others), default=0)
    return [index for index in others if boards[index].in_a_row == best]


def proven(boards: Mapping[int, BoardState], found: Sequence[int], failed_at: float) -> list[int]:
    """Those that have done a part since another failed. When several boards go away at once, the
    others are not known to be there until then."""
    return [index for index in found if boards[index].done_at > failed_at]


def after_failure(board: BoardState, reason: str) -> str:
    """Why a board is left out after one more failure; empty when it is not."""
    if board.in_a_row + 1 < MOST_IN_A_ROW:
        return ""
    return f"failed {MOST_IN_A_ROW} times in a row, last: {reason}"


def fault_of_run(tries: Sequence[Try], boards_left: int) -> Optional[str]:
    """The error that a part met on two boards, or again on the only one that there is: then it is
    the run's, whatever board takes it."""
    seen: dict[str, set[str]] = {}
    counts: dict[str, int] = {}
    for one in tries:
        if one.outcome == "failed" and one.error:
            seen.setdefault(one.error, set()).add(one.board)
            counts[one.error] = counts.get(one.error, 0) + 1
    for error, names in seen.items():
        if len(names) >= 2 or (boards_left == 1 and counts[error] >= 2):
            return error
    return None


def is_given_up(tries: Sequence[Try]) -> bool:
    """Whether a part has failed often enough."""
    return sum(1 for one in tries if one.outcome != STOPPED) >= MOST_TRIES
