"""Writing of files that a companion may replace, because a companion made them."""

import os
import tempfile
from pathlib import Path

from quilmrun_tools.common.errors import Unreadable


def check_own(path: str, marker: bytes, maker: str) -> None:
    """Raises Unreadable when `path` must not be written.

    A file that exists is replaced only if it is empty or holds `marker` in its first 4096 bytes,
    which tells that the companion `maker` made it. Before long work this is asked ahead of
    write_own().
    """
    target = Path(path)
    try:
        if not target.parent.is_dir() or target.is_dir():
            raise Unreadable(f"cannot write {path}: name a file in a folder that exists")
        if target.is_file() and target.stat().st_size > 0:
            with open(target, "rb") as file:
                if marker not in file.read(4096):
                    raise Unreadable(f"{path} exists, and {maker} did not make it: "
                                     "name another file, or remove it")
    except OSError as error:
        raise Unreadable(f"cannot write {path}: {error.strerror}") from error


def write_own(path: str, content: bytes, marker: bytes, maker: str) -> None:
    """Writes a file whole or not at all, where check_own() allows it."""
    check_own(path, marker, maker)
    target = Path(path)
    try:
        if target.exists() and not target.is_file():  # a pipe or a device
            target.write_bytes(content)
        else:
            _replace(target, content)
    except OSError as error:
        raise Unreadable(f"cannot write {path}: {error.strerror}") from error


def _replace(target: Path, content: bytes) -> None:
    """Puts a new file in place of `target`, with the permissions of any new file."""
    handle, temporary = tempfile.mkstemp(prefix=f".{target.name[:100]}.", dir=target.parent)
    try:
        with open(handle, "wb") as file:
            file.write(content)
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(temporary, 0o666 & ~umask)
        os.replace(temporary, target)
    except BaseException:
        os.unlink(temporary)
        raise
