"""What a board sends back of a part: looked at while it comes, and kept only when it is whole."""

from __future__ import annotations

import hashlib
import os
import re
from pathlib import Path
from typing import Callable, Optional, Sequence

from quilmrun_tools.boards.part_log import Inference
from quilmrun_tools.boards.plan import OutputShape
from quilmrun_tools.boards.ustar import ArchiveReader, Damaged

_FILE = re.compile(rb"(\d{1,9})/(.+)\.(\d{1,9})\.(\d{1,20})\.(bin|float)", re.DOTALL)
_LONGEST_LINE = 58  # a sign, up to 39 digits, a point, 16 more and the end
_SHORTEST_LINE = 19

# The largest that the other files may be: (bytes, bytes more for each inference).
_LIMITS = {b"status": (4096, 0), b"memory_data.csv": (4096, 0), b"err.txt": (1 << 26, 0),
           b"log.txt": (1 << 24, 1 << 18), b"record.json": (1 << 28, 1 << 20)}

Describe = Callable[[bytes], Sequence[Inference]]


class Incoming:
    """The files of one try, in a folder of its own. Its outputs become RUN/NAME.K.STAMP.EXT there,
    with the numbers that the board gave them."""

    def __init__(self, folder: Path, shapes: Sequence[OutputShape], inferences: int, text: bool,
                 describe: Describe) -> None:
        self._folder = os.fsencode(folder)
        self._places = {(os.fsencode(shape.name), shape.duplicate): at
                        for at, shape in enumerate(shapes)}
        self._inferences = inferences
        self._kinds = (b"bin", b"float") if text else (b"bin",)
        self._describe = describe
        self._course: Optional[Sequence[Inference]] = None
        self._stamps: dict[tuple[int, int], int] = {}
        self._checksums: dict[bytes, bytes] = {}
        self.files: dict[bytes, bytes] = {}  # all but outputs, by name
        self._reader = ArchiveReader(self._accept, self._take)
        self.feed = self._reader.feed

    @property
    def ended(self) -> bool:
        """Whether the archive came to its end."""
        return self._reader.ended

    def _accept(self, name: bytes, size: int) -> None:
        if name in _LIMITS:
            fixed, each = _LIMITS[name]
            if size > fixed + each * self._inferences or name in self.files:
                raise Damaged(f"the board sent {size} bytes as {name.decode()}")
            return
        run, place, _, kind = self._parse(name)
        if kind not in self._kinds:
            return  # not asked for
        expected = self._expected(run, place)
        wrong = size != 4 * expected if kind == b"bin" else \
            not _SHORTEST_LINE * expected <= size <= _LONGEST_LINE * expected
        if wrong:
            raise Damaged(f"{os.fsdecode(name)} has {size} bytes, and by the log it has "
                          f"{expected} values: it is not whole")

    def _take(self, name: bytes, body: bytes) -> None:
        if name in _LIMITS:
            self.files[name] = body
            return
        run, place, stamp, kind = self._parse(name)
        if kind not in self._kinds:
            return
        if self._stamps.setdefault((run, place), stamp) != stamp or name in self._checksums:
            raise Damaged(f"the board sent output {place} of inference {run} twice")
        if kind == b"float" and (body.count(b"\n") != self._expected(run, place)
                                 or body[-1:] not in (b"", b"\n")):
            raise Damaged(f"{os.fsdecode(name)} is not whole")
        self._checksums[name] = hashlib.sha256(body).digest()
        self._write(run, name, body)

    def _parse(self, name: bytes) -> tuple[int, int, int, bytes]:
        """(inference, output, time stamp, kind) of an output file."""
        match = _FILE.fullmatch(name, 4) if name.startswith(b"out/") else None
        if match:
            run, output, duplicate, stamp, kind = match.groups()
            place = self._places.get((output, int(duplicate)))
            if place is not None and b"/" not in output and b"%d" % int(run) == run:
                return int(run), place, int(stamp), kind
        raise Damaged(f"the board sent {os.fsdecode(name)!r}, which is no output of the model")

    def _expected(self, run: int, place: int) -> int:
        """The values of an output, by the log."""
        if self._course is None:
            self._course = self._describe(self.files.get(b"log.txt", b""))
        values = self._course[run].values if run < len(self._course) else []
        expected = values[place] if place < len(values) else None
        if expected is None:
            raise Damaged(f"the board sent an output {place} of inference {run}, of which its log "
                          "does not know")
        return expected

    def _write(self, run: int, name: bytes, body: bytes) -> None:
        path = self._folder + b"/" + name[4:]
        flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
        try:
            descriptor = os.open(path, flags, 0o666)
        except FileNotFoundError:
            os.mkdir(self._folder + b"/%d" % run)
            descriptor = os.open(path, flags, 0o666)
        try:
            left = memoryview(body)
            while left:
                left = left[os.write(descriptor, left):]
        finally:
            os.close(descriptor)

    # ---- Afterwards -------------------------------------------------------------------------

    def missing(self, course: Sequence[Inference]) -> str:
        """What is not there of the outputs that the log tells of; empty when all is."""
        if len(course) != self._inferences:
            return f"{len(course)} of {self._inferences} inferences have outputs"
        if any(inference.unwritten for inference in course):
            return "the tool could not create output files"
        expected = len(self._kinds) * sum(
            1 for inference in course for values in inference.values if values is not None)
        if len(self._checksums) != expected:
            return f"{len(self._checksums)} of {expected} output files came back"
        return ""

    def sha256(self) -> str:
        """Of all output files, by name."""
        digest = hashlib.sha256()
        for name in sorted(self._checksums):
            digest.update(name + b"\0" + self._checksums[name])
        return digest.hexdigest()

    def paces(self) -> list[float]:
        """Milliseconds from the outputs of one inference to those of the next."""
        last: dict[int, int] = {}
        for (run, _), stamp in self._stamps.items():
            last[run] = max(last.get(run, 0), stamp)
        stamps = [last[run] for run in sorted(last)]
        return [(after - before) / 1000 for before, after in zip(stamps, stamps[1:])]
