"""What a user sees on a terminal while boards work."""

from __future__ import annotations

import time

from quilmrun_tools.boards.plan import Plan
from quilmrun_tools.boards.state import State
from quilmrun_tools.common.streams import Streams

_EVERY = 0.5  # seconds
_UP = "\033[{}A"
_CLEAR = "\033[K"


class Watch:
    """Lines that are drawn over and over: the run's, and one for each board."""

    def __init__(self, state: State, plan: Plan, streams: Streams) -> None:
        self._state = state
        self._plan = plan
        self._streams = streams
        self._lines = 0
        self._due = 0.0
        self._start = time.monotonic()
        self._done: dict[int, int] = {}  # inferences of parts that are done
        self._waiting = set(state.numbers())
        self._at_start = -1

    def look(self) -> None:
        """Draws, if it is time to."""
        now = time.monotonic()
        if self._streams.on_terminal and now >= self._due:
            self._due = now + _EVERY
            self._draw(self._text(now))

    def end(self) -> None:
        """Leaves the last lines as they are, and the cursor below them."""
        if self._lines:
            self._due = 0.0
            self.look()

    def _text(self, now: float) -> list[str]:
        for number in list(self._waiting):
            found = self._state.receipt(number)
            if found:
                self._waiting.discard(number)
                self._done[number] = found[0].inferences
        told = [self._state.told(index) for index in range(len(self._plan.hosts))]
        done = sum(self._done.values()) + sum(at for part, at in told if part >= 0 and at > 0)
        if self._at_start < 0:
            self._at_start = done
        return [overall(done, self._plan.inferences, done - self._at_start, now - self._start),
                *(self._line(index, *at) for index, at in enumerate(told))]

    def _line(self, index: int, part: int, at: int) -> str:
        board = self._state.board(index)
        doing = f"part {part}, {at} inferences" if part >= 0 else "waits"
        failures = f", {board.failures} failures" if board.failures else ""
        left_out = f"left out: {board.left_out}" if board.left_out else doing
        return f"  {self._plan.hosts[index]}: {left_out}{failures}"[:120]

    def _draw(self, lines: list[str]) -> None:
        up = _UP.format(self._lines) if self._lines else ""
        self._streams.err.write(up + "".join(f"\r{line}{_CLEAR}\n" for line in lines))
        self._streams.err.flush()
        self._lines = len(lines)


def overall(done: int, total: int, new: int, seconds: float) -> str:
    """The run's line. `new` inferences were done in so many seconds."""
    rate = new / seconds if seconds > 0 else 0.0
    left = f", {_clock((total - done) / rate)} left" if rate > 0 and done < total else ""
    return f"{done:,} of {total:,} inferences, {rate:,.1f} a second{left}"


def _clock(seconds: float) -> str:
    minutes, rest = divmod(round(seconds), 60)
    hours, minutes = divmod(minutes, 60)
    return f"{hours}:{minutes:02}:{rest:02}" if hours else f"{minutes}:{rest:02}"
