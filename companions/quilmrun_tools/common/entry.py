"""The process around a companion: its arguments and streams, signals, and every end that it has."""

import importlib
import importlib.util
import io
import os
import signal
import sys
import traceback
from pathlib import Path
from typing import Callable, NoReturn, Optional, Sequence, TextIO

from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.streams import Streams

Main = Callable[[list[str], Streams], int]

# Debian's package of each Python package that a companion may lack.
_PACKAGES = {"numpy": "python3-numpy", "PIL": "python3-pil", "jinja2": "python3-jinja2",
             "onnx": "python3-onnx"}


def run(room: str) -> NoReturn:
    """Runs the companion of a room as this process, and ends the process with its status. All that
    a starter script has to do."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))  # and tidy up
    for number in (0, 1, 2):
        _occupy(number)
    streams = Streams(_open(sys.stdout, 1), _open(sys.stderr, 2), Path(sys.argv[0]).name)
    if sys.stdout is None:
        streams.complain("cannot write: standard output is closed")
        raise SystemExit(Status.MISUSE)
    raise SystemExit(status_of(room, sys.argv[1:], streams))


def _occupy(number: int) -> None:
    """Puts a closed standard stream in place. Otherwise the first file that is opened would receive
    what is written to that stream."""
    try:
        os.fstat(number)
    except OSError:
        os.open(os.devnull, os.O_RDWR)  # takes the lowest number that is free


def _open(stream: Optional[TextIO], number: int) -> TextIO:
    """The stream, made to take any file name; Python has None for one that was closed."""
    if stream is None:
        return open(number, "w", encoding="utf-8", closefd=False)
    if isinstance(stream, io.TextIOWrapper):
        stream.reconfigure(errors="backslashreplace")
    return stream


def status_of(room: str, arguments: Sequence[str], streams: Streams) -> int:
    """Runs a companion; whatever it raises becomes one line and a status. Only here exceptions are
    caught that tell of no fault of the companion."""
    try:
        program = importlib.import_module(f"quilmrun_tools.{room}.program")
        main: Main = program.main
        status = main(list(arguments), streams)
        streams.out.flush()
        return status
    except KeyboardInterrupt:
        return Status.INTERRUPTED
    except BrokenPipeError:  # nobody reads on
        _drop_output(streams)
        return Status.MISUSE
    except Exception as error:  # pylint: disable=broad-exception-caught
        if "--traceback" in arguments:
            traceback.print_exc(file=streams.err)
        status, line = _explain(error)
        if isinstance(error, OSError):
            _drop_output(streams)
        streams.complain(line)
        return status


def _explain(error: Exception) -> tuple[Status, str]:
    """What an exception means to the user."""
    if isinstance(error, Unreadable):
        return Status.MISUSE, str(error)
    if isinstance(error, ModuleNotFoundError):
        missing = [package for name, package in _PACKAGES.items()
                   if importlib.util.find_spec(name) is None]
        return Status.MISUSE, (f"Python's {error.name} is missing: "
                               f"apt install {' '.join(missing) or error.name}")
    if isinstance(error, MemoryError):
        return Status.MISUSE, "there is not enough memory"
    if isinstance(error, OSError):
        return Status.MISUSE, (f"cannot use {error.filename}: {error.strerror}"
                               if error.filename else f"cannot write: {error.strerror}")
    return Status.FAULT, (f"a fault of the companion itself: {type(error).__name__}: {error}; "
                          "please report it with what --traceback shows")


def _drop_output(streams: Streams) -> None:
    """What standard output could not take would be an error once more at the end."""
    try:
        os.dup2(os.open(os.devnull, os.O_WRONLY), streams.out.fileno())
    except (OSError, ValueError):  # a stream in memory, or none
        pass
