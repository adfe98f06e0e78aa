"""Where a companion speaks: results on one stream, errors and warnings on another."""

from dataclasses import dataclass
from typing import TextIO


@dataclass(frozen=True)
class Streams:
    """The world of one run of a companion; tests give texts in memory."""
    out: TextIO  # results
    err: TextIO  # errors, warnings and the progress bar
    program: str  # the companion's name, as in quilmrun-inputs

    def say(self, line: str = "") -> None:
        """Writes a line of the result."""
        print(line, file=self.out)

    def warn(self, message: str) -> None:
        print(f"{self.program}: warning: {message}", file=self.err)

    def complain(self, message: str) -> None:
        """Writes the one line that explains why the companion ends, or what it left out."""
        print(f"{self.program}: {message}", file=self.err)

    @property
    def on_terminal(self) -> bool:
        """Whether a user watches the progress."""
        return self.err.isatty()
