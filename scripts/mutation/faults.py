"""Faults: one place of a source, and what stands there instead."""

import re
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import NoReturn

ROOT = Path(__file__).resolve().parents[2]


def fail(message: str) -> NoReturn:
    sys.exit(f"mutate: {message}")


@dataclass(frozen=True)
class Fault:
    """The text `old` of `file`, which starts in line `line` (from 1), replaced by `new`."""

    file: str
    line: int
    old: str
    new: str

    def apply(self, source: str) -> str:
        lines = source.splitlines(keepends=True)
        before = "".join(lines[:self.line - 1])
        return before + "".join(lines[self.line - 1:]).replace(self.old, self.new, 1)

    def last_line(self) -> int:
        return self.line + self.old.count("\n")

    def __str__(self) -> str:
        return f"{self.file}:{self.line}: {self.old.strip()} ==> {self.new.strip()}"


def _entries(name: str) -> list[tuple[str, str, str]]:
    """(file, old, new) of every line of a list beside this script that is no comment."""
    entries = []
    for line in (ROOT / "scripts" / name).read_text().splitlines():
        if line and not line.startswith("#"):
            match = re.fullmatch(r"(\S+): (.*) ==>(?: (.*))?", line)
            if match is None:
                fail(f"scripts/{name}: this is no FILE: OLD ==> NEW: {line}")
            entries.append((match[1], match[2], match[3] or ""))
    return entries


def listed(words: str) -> list[Fault]:
    """The faults of scripts/mutations.txt whose line holds `words`. Ends the program when the
    sources have changed so that one of them has no place, or several."""
    faults, lost = [], []
    for file, old, new in _entries("mutations.txt"):
        if words in f"{file}: {old} ==> {new}":
            source = (ROOT / file).read_text() if (ROOT / file).is_file() else ""
            if source.count(old) == 1:
                faults.append(Fault(file, source[:source.index(old)].count("\n") + 1, old, new))
            else:
                lost.append(f"{file} holds this {source.count(old)} times: {old}")
    if lost:
        fail("\n".join(lost))
    return faults


def equivalent() -> set[tuple[str, str, str]]:
    """What scripts/equivalent.txt says changes nothing that can be seen: (file, old, new), both
    whole lines without the blanks around them."""
    return set(_entries("equivalent.txt"))
