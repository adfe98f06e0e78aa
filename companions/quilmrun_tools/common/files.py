"""Opening of files that others may have put there: regular ones only, up to a size."""

import os
import stat
from pathlib import Path
from typing import BinaryIO, Union

from quilmrun_tools.common.errors import Unreadable

LARGEST_TEXT = 1 << 30  # bytes of a log or a JSON file; what is longer does not fit into memory

AnyPath = Union[str, Path]


def open_regular(path: AnyPath) -> BinaryIO:
    """Opens a regular file for reading, without a buffer; raises Unreadable as regular_handle()."""
    return open(regular_handle(path), "rb", buffering=0)


def regular_handle(path: AnyPath, what: str = "") -> int:
    """A descriptor of a regular file, for reading; `what` names it in messages. A FIFO or a device
    would make a companion wait or read for ever, so these are refused by name, as is what cannot
    be opened."""
    called = f"{what} {path}".strip()
    try:
        # Without O_NONBLOCK, the opening of a FIFO waits for a writer.
        handle = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_NOCTTY | os.O_CLOEXEC)
    except (OSError, ValueError) as error:  # ValueError: a name with a null byte
        raise cannot_read(called, error) from error
    try:
        _check_regular(called, os.fstat(handle).st_mode)
    except BaseException:
        os.close(handle)
        raise
    return handle


def size_of_regular(path: AnyPath) -> int:
    """The bytes of a regular file; raises Unreadable for anything else."""
    try:
        status = os.stat(path)
    except (OSError, ValueError) as error:
        raise cannot_read(path, error) from error
    _check_regular(path, status.st_mode)
    return status.st_size


def read_regular(path: AnyPath, what: str = "", largest: int = LARGEST_TEXT) -> bytes:
    """All of a regular file of at most `largest` bytes; `what` names it in messages, as "the log".
    """
    called = f"{what} {path}".strip()
    with open(regular_handle(path, what), "rb", buffering=0) as file:
        content = bytearray()
        try:
            # The size that the system tells may be 0, or change meanwhile.
            while part := file.read(min(largest + 1 - len(content), 1 << 20)):
                content += part
        except OSError as error:
            raise cannot_read(called, error) from error
    if len(content) > largest:
        raise Unreadable(f"{called} has more than the {largest} bytes that are read")
    return bytes(content)


def cannot_read(path: AnyPath, error: Exception) -> Unreadable:
    """The line for a file that the system does not give."""
    return Unreadable(f"cannot read {path}: {getattr(error, 'strerror', None) or error}")


def _check_regular(path: AnyPath, mode: int) -> None:
    if stat.S_ISDIR(mode):
        raise Unreadable(f"cannot read {path}: it is a folder")
    if not stat.S_ISREG(mode):
        raise Unreadable(f"cannot read {path}: it is no regular file, but a pipe or a device")
