"""Exchanges two folders in one step, which Python has no function for."""

import ctypes
import errno
import os
from pathlib import Path

_AT_FDCWD = -100
_RENAME_EXCHANGE = 2


def exchange(one: Path, other: Path) -> None:
    """Gives each of two files or folders on one file system the other's name. Raises OSError; a
    file system that cannot do it, such as one over the network, gives EINVAL."""
    library = ctypes.CDLL(None, use_errno=True)
    if not hasattr(library, "renameat2"):  # before libc 2.28
        raise OSError(errno.ENOSYS, os.strerror(errno.ENOSYS))
    if library.renameat2(_AT_FDCWD, os.fsencode(one), _AT_FDCWD, os.fsencode(other),
                         _RENAME_EXCHANGE) != 0:
        code = ctypes.get_errno()
        raise OSError(code, os.strerror(code))
