"""Own errors that were computed already, kept in the probe's folder: a search that was interrupted
or failed goes on where it was. The file is made again when anything that it depends on changed."""

from __future__ import annotations

import hashlib
from dataclasses import dataclass, field
from pathlib import Path
from typing import Iterable, TextIO

from quilmrun_tools.artifacts.values import Values
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.json_files import Format, headed, read_json, write_json
from quilmrun_tools.layers.evidence import Evidence

FILE_NAME = "own-errors.json"
_FORM = Format("quilmrun-layers own", 1, "remove it")


@dataclass
class SavedErrors:
    """What the file holds."""
    key: str  # of all that the figures depend on
    layers: dict[str, Evidence] = field(default_factory=dict)


def key_of(probe: Path, values: Iterable[Values], runs: list[int]) -> str:
    """A checksum of the probe's description, and of names, sizes and times of the values' files."""
    digest = hashlib.sha256(probe.read_bytes() + repr(runs).encode())
    for one in values:
        status = one.path.stat()
        digest.update(f"{one.path.absolute()}\0{status.st_size}\0{status.st_mtime_ns}\0"
                      f"{one.type}\0".encode(errors="surrogateescape"))
    return digest.hexdigest()


def load(folder: Path, key: str) -> SavedErrors:
    """What was saved for the same key; nothing when the file is not there or not to be used."""
    try:
        saved = read_json(folder / FILE_NAME, _FORM, SavedErrors)
    except Unreadable:
        return SavedErrors(key)
    return saved if saved.key == key else SavedErrors(key)


def save(folder: Path, saved: SavedErrors, out: TextIO) -> None:
    """Writes the file; where the folder cannot be written, nothing is kept."""
    try:
        write_json(str(folder / FILE_NAME), headed(_FORM, saved), out)
    except Unreadable:
        pass
