"""Where a companion speaks: results on one stream, errors and warnings on another."""

from dataclasses import dataclass
from typing import TextIO


def one_line(text: str) -> str:
    """A text as one line, whatever the names of files in it hold."""
    return "".join(letter if letter.isprintable() else "?" for letter in text)


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
        """Writes a line about something that may be wrong."""
        print(f"{self.program}: warning: {one_line(message)}", file=self.err)

    def complain(self, message: str) -> None:
        """Writes the one line that explains why the companion ends, or what it left out."""
        print(f"{self.program}: {one_line(message)}", file=self.err)

    @property
    def on_terminal(self) -> bool:
        """Whether a user watches the progress."""
        return self.err.isatty()
