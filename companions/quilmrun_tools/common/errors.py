"""How a companion ends."""

from enum import IntEnum


class Status(IntEnum):
    """Exit statuses. Only a verdict ends with NO."""
    YES = 0
    NO = 1  # a verdict against what was asked, and nothing else
    MISUSE = 2  # a wrong command line, or a file that cannot be used
    FAULT = 70  # a fault of the companion itself, as EX_SOFTWARE of sysexits.h
    INTERRUPTED = 130  # as a shell reports SIGINT


class Unreadable(Exception):
    """Something named by the user cannot be used; the text is one line that says what to do."""
