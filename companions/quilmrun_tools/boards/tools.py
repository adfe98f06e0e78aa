"""The tool for a board's processor, and the recorder beside it: from a build or from a package."""

from __future__ import annotations

import hashlib
import os
import tarfile
from dataclasses import dataclass
from pathlib import Path
from typing import Optional, Sequence

from quilmrun_tools.common.errors import Unreadable

# The folder of the source tree, or share/quilmrun where the companions are installed.
_HOME = Path(__file__).resolve().parents[3]

# Processors by what uname -m calls them: ELF's number and Debian's name.
_PROCESSORS = {"aarch64": (183, "arm64"), "arm64": (183, "arm64"), "x86_64": (62, "amd64"),
               "amd64": (62, "amd64"), "riscv64": (243, "riscv64"), "armv7l": (40, "armhf")}
_TOOL = "bin/quilmrun"
_RECORDER = ("bin/quilmrun-record", "lib/quilmrun/record/libquilm.so",
             "lib/quilmrun/record/convert")


@dataclass(frozen=True)
class ToolSet:
    """What a board needs to run the tool."""
    sha256: str
    files: tuple[tuple[str, bytes], ...]  # (path on the board, content)


def tool_for(processor: str, named: Sequence[str], here: str, record: bool) -> ToolSet:
    """The tool for a processor: the first file of `named` that is for it, or else the executable
    `here`, a board package that was built or installed. Raises Unreadable when there is none."""
    wanted = [_TOOL, *(_RECORDER if record else ())]
    for candidate in (*map(Path, named), *([] if named else _usual(here))):
        if processor not in _processors_of(candidate):
            continue
        files = _from_package(candidate, wanted) if _is_package(candidate) else \
            _from_build(candidate, wanted)
        missing = set(wanted) - set(files)
        if missing:
            raise Unreadable(f"{candidate} has no {min(missing)}: name a board package with --tool")
        content = tuple(sorted(files.items()))
        return ToolSet(_checksum(content), content)
    raise Unreadable(f"there is no tool for {processor}: make the board package with "
                     "scripts/package, or name it with --tool")


def _usual(here: str) -> list[Path]:
    found = [Path(here)] if here else []
    for folder in (_HOME / "build/packages", _HOME / "boards"):
        found += sorted(folder.glob("quilmrun-*.tar.gz"), reverse=True)
    return [*found, _HOME / "build/board/quilmrun"]


def _is_package(path: Path) -> bool:
    return path.name.endswith((".tar.gz", ".tgz"))


def _processors_of(path: Path) -> set[str]:
    """The names of the processors that a file is for: of a package by its name, of an executable
    by its header, of a script all."""
    if _is_package(path):
        return {name for name, (_, debian) in _PROCESSORS.items()
                if path.name.rpartition("-")[2].startswith(debian + ".")}
    try:
        with open(path, "rb") as file:
            head = file.read(20)
    except OSError:
        return set()
    if head[:4] != b"\x7fELF":
        return set(_PROCESSORS) if head[:2] == b"#!" else set()
    machine = int.from_bytes(head[18:20], "little")
    return {name for name, (number, _) in _PROCESSORS.items() if number == machine}


def _from_package(path: Path, wanted: Sequence[str]) -> dict[str, bytes]:
    """The wanted files of an archive, whose names begin with a folder of any name."""
    found: dict[str, bytes] = {}
    try:
        with tarfile.open(path) as archive:
            for member in archive:
                name = next((name for name in wanted if member.name.endswith("/" + name)), "")
                content = archive.extractfile(member) if name and member.isfile() else None
                if content:
                    found[name] = content.read()
    except (OSError, tarfile.TarError) as error:
        raise Unreadable(f"cannot read {path}: {error}") from error
    return found


def _from_build(path: Path, wanted: Sequence[str]) -> dict[str, bytes]:
    """An executable, with the recorder beside it or as it is installed."""
    found: dict[str, bytes] = {}
    for name in wanted:
        places = [path.parent / name.removeprefix("bin/"), path.parent.parent / name]
        if name == _TOOL:
            places = [path]
        content: Optional[bytes] = next((place.read_bytes() for place in places
                                         if place.is_file()), None)
        if content is not None:
            found[name] = content
    return found


def _checksum(files: Sequence[tuple[str, bytes]]) -> str:
    digest = hashlib.sha256()
    for name, content in files:
        digest.update(f"{name} {len(content)}\n".encode() + content)
    return digest.hexdigest()


def checksum(path: str | bytes) -> str:
    """Of a file that the run needs; raises Unreadable."""
    digest = hashlib.sha256()
    try:
        with open(path, "rb") as file:
            while chunk := file.read(1 << 20):
                digest.update(chunk)
    except OSError as error:
        raise Unreadable(f"cannot read {os.fsdecode(path)}: {error.strerror}") from error
    return digest.hexdigest()
