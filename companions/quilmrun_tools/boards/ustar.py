"""Archives as tar has them: those that go to a board, and those that come back from one.

What comes back is taken apart while it comes, and nothing of it is trusted: only regular files are
accepted, and where they go is for the caller to say. Python's own tarfile needs ten times as long
for the small files of an output folder.
"""

from __future__ import annotations

from typing import Callable, Iterator, Optional

_BLOCK = 512
_CHUNK = 1 << 20
_LONGEST_NAME = 1 << 16


class Damaged(Exception):
    """An archive is not as it should be; the text says how."""


# ---- Writing ------------------------------------------------------------------------------------

def header(name: str, size: int, mode: int = 0o600, folder: bool = False) -> bytes:
    """The block in front of a file's content. REQUIRES: a name of at most 99 bytes of ASCII."""
    fields = b"%-100s%07o\0%07o\0%07o\0%011o\0%011o\0        %c" % (
        b"", mode, 0, 0, size, 0, b"5" if folder else b"0")
    block = bytearray(fields.ljust(_BLOCK, b"\0"))
    block[:100] = name.encode("ascii").ljust(100, b"\0")
    block[257:265] = b"ustar\x0000"
    block[148:156] = b"%06o\0 " % sum(block)
    return bytes(block)


def padded(size: int) -> int:
    """The bytes that a content takes in an archive."""
    return -(-size // _BLOCK) * _BLOCK


END = bytes(2 * _BLOCK)


def content(path: bytes, size: int) -> Iterator[bytes]:
    """A file's content, padded; raises Damaged when the file has no longer that size."""
    left = size
    with open(path, "rb", buffering=0) as file:
        while left > 0:
            chunk = file.read(min(_CHUNK, left))
            if not chunk:
                break
            left -= len(chunk)
            yield chunk
        if left or file.read(1):
            raise Damaged(f"{path!r} changed while it was sent")
    yield bytes(padded(size) - size)


# ---- Reading ------------------------------------------------------------------------------------

Accept = Callable[[bytes, int], None]
Take = Callable[[bytes, bytes], None]


class ArchiveReader:  # pylint: disable=too-few-public-methods
    """Takes an archive apart, fed in pieces. Of every regular file `accept` hears name and size
    first, and raises Damaged for one that is not wanted; then `take` gets name and content."""

    def __init__(self, accept: Accept, take: Take) -> None:
        self._accept = accept
        self._take = take
        self._waiting = bytearray()
        self._at = 0  # where the next header begins in `_waiting`
        self._long_name: Optional[bytes] = None
        self.ended = False

    def feed(self, data: bytes) -> None:
        """Raises Damaged for anything but files and folders."""
        if self.ended:
            return
        self._waiting += data
        while self._next():
            pass
        if self._at > _CHUNK or self.ended:
            del self._waiting[:self._at]
            self._at = 0

    def _next(self) -> bool:
        """Handles one member, if all of it is there."""
        start = self._at + _BLOCK
        if self.ended or len(self._waiting) < start:
            return False
        block = bytes(self._waiting[self._at:start])
        if block.count(0) == _BLOCK:
            self.ended = True
            return False
        name, kind, size = _decode(block)
        if kind == b"L" and size <= _LONGEST_NAME:
            accepted = True
        else:
            name = self._long_name or name
            accepted = self._is_wanted(name, kind, size)
        end = start + padded(size)
        if len(self._waiting) < end:
            return False
        body = bytes(self._waiting[start:start + size])
        self._at = end
        if kind == b"L":
            self._long_name = body.rstrip(b"\0")
            return True
        self._long_name = None
        if accepted:
            self._take(name, body)
        return True

    def _is_wanted(self, name: bytes, kind: bytes, size: int) -> bool:
        if kind == b"5" and size == 0:
            return False
        if kind not in (b"0", b"\0"):
            raise Damaged(f"the board sent {name!r}, which is not a regular file")
        self._accept(name, size)
        return True


def _decode(block: bytes) -> tuple[bytes, bytes, int]:
    """(name, type, size) of a header."""
    try:
        size = int(block[124:136].rstrip(b" \0") or b"0", 8)
        expected = int(block[148:156].rstrip(b" \0") or b"0", 8)
    except ValueError:
        raise Damaged("what the board sent is no archive") from None
    if expected != sum(block) - sum(block[148:156]) + 8 * 32 or size < 0:
        raise Damaged("what the board sent is no archive")
    name = block[:100].partition(b"\0")[0]
    if block[257:263] == b"ustar\0" and block[345]:
        name = block[345:500].partition(b"\0")[0] + b"/" + name
    return name, block[156:157], size
