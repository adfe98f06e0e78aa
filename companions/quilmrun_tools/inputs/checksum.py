"""Checksums of files."""

import hashlib
from pathlib import Path

from quilmrun_tools.common.files import open_regular

_CHUNK = 1 << 20  # bytes that are read at a time


def checksum(path: Path) -> str:
    """SHA-256 of a regular file, in hexadecimal digits."""
    digest = hashlib.sha256()
    with open_regular(path) as file:
        while chunk := file.read(_CHUNK):
            digest.update(chunk)
    return digest.hexdigest()
