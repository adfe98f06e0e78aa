"""The tool's command line, as it is given after `--`."""

from __future__ import annotations

import getopt
import os
import re
from dataclasses import dataclass, field
from typing import Optional

from quilmrun_tools.common.errors import Unreadable

_OPTIONS = "m:i:j:t:b:r:p:o:"
_LONGEST_PATH = 4096
_INT_MAX = 2**31 - 1


@dataclass
class ToolCommand:
    """What the command says; of an option that is given twice the last value counts. Paths are as
    typed."""
    tool: str
    options: list[tuple[str, str]] = field(default_factory=list)  # as typed, all of them

    def last(self, letter: str) -> str:
        """The value that counts; empty for an option that is not given."""
        return ([""] + [value for name, value in self.options if name == letter])[-1]

    @property
    def rpn(self) -> list[str]:
        """The files of -r: a comma at the end makes no further one."""
        items = self.last("r").split(",")
        return items if items[-1] else items[:-1]

    @property
    def batch(self) -> int:
        """The value of -b as the tool reads it."""
        return _number(self.last("b"), 1) % 2**32

    @property
    def words(self) -> list[str]:
        """The whole command."""
        return [self.tool, *(word for name, value in self.options for word in (f"-{name}", value))]

    def on_board(self, paths: dict[str, str]) -> list[str]:
        """The tool's arguments, with other values for the options in `paths`."""
        return [word for name, value in self.options
                for word in (f"-{name}", paths.get(name, value))]


def parse_command(words: list[str], needed: str) -> ToolCommand:
    """Reads a command as the tool does. `needed` are the options that must be there; raises
    Unreadable for what the tool would not run."""
    if not words:
        raise Unreadable("what is to be run? Give the command after --, as in -- quilmrun -m "
                         "MODEL -i LIST -j JSON -o OUT; see quilmrun-boards --help")
    try:
        found, _ = getopt.gnu_getopt(words[1:], _OPTIONS)
    except getopt.GetoptError as error:
        raise Unreadable(f"the tool would not understand its command line: {error}") from error
    command = ToolCommand(words[0], [(name[1:], value) for name, value in found])
    for letter in needed:
        if not command.last(letter):
            raise Unreadable(f"the tool's command lacks -{letter}; see quilmrun --help")
    for letter in "tbp":
        if command.last(letter):
            _check_number(letter, command.last(letter))
    for path in (*(command.last(letter) for letter in "mij"), *command.rpn):
        check_length(os.fsencode(path))
    return command


def check_length(path: bytes) -> None:
    """Raises Unreadable for a path that the tool refuses."""
    if len(path) > _LONGEST_PATH:
        raise Unreadable(f"a path has {len(path)} bytes, and the tool takes {_LONGEST_PATH}: "
                         f"{os.fsdecode(path[:60])}...")


def _leading_number(value: str) -> Optional[int]:
    match = re.match(r"[ \t\n\v\f\r]*([+-]?[0-9]+)", value)
    return int(match.group(1)) if match else None


def _number(value: str, fallback: int) -> int:
    found = _leading_number(value)
    return fallback if found is None else found


def _check_number(letter: str, value: str) -> None:
    number = _leading_number(value)
    if number is None or not -_INT_MAX - 1 <= number <= _INT_MAX:
        raise Unreadable(f"-{letter} {value!r} is no number that the tool takes")
