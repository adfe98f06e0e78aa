"""Finds the output files of quilmrun: DIRECTORY/RUN/NAME.DUPLICATE.TIMESTAMP.bin and .float.

A directory keeps the files of earlier runs of the tool. A run of the tool numbers its inferences
from 0 and stamps its files with the time, so going back in time from the newest file, the newest
run ends where the number rises or a file of the same output comes again.
"""

import os
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Iterator, Optional

from quilmrun_tools.common.errors import Unreadable

_FILE = re.compile(r"(.+)\.(\d+)\.(\d+)\.(bin|float)", re.DOTALL)


@dataclass(frozen=True)
class Output:
    """The files of one output of one inference."""
    run: int
    name: str
    duplicate: int  # earlier outputs of the same name in the same inference
    timestamp_us: int  # microseconds since 1970
    bin_path: Optional[Path] = None
    float_path: Optional[Path] = None

    @property
    def key(self) -> tuple[str, int]:
        return self.name, self.duplicate


@dataclass
class Run:
    """One inference: what the newest run of the tool wrote, and what was there before."""
    index: int
    outputs: list[Output] = field(default_factory=list)  # in the order of writing
    older: list[Output] = field(default_factory=list)


@dataclass
class Folder:
    """An output directory."""
    path: Path
    runs: list[Run]  # of the newest run of the tool, by number
    older: list[Output]  # of earlier ones, oldest first


def scan_folder(folder: str) -> Folder:
    """All outputs of a directory; raises Unreadable when there are none."""
    root = Path(folder)
    try:
        found = list(_find(root))
    except OSError as error:
        raise Unreadable(f"cannot read {error.filename or folder}: {error.strerror}; name the "
                         "directory that quilmrun was given with -o") from error
    if not found:
        raise Unreadable(f"no outputs in {folder}: {_advice(root)}")
    # Of equal stamps the later inference counts as the later file.
    found.sort(key=lambda output: (output.timestamp_us, output.run))
    start = _start_of_newest(found)
    runs = {output.run: Run(output.run) for output in found[start:]}
    for output in found[start:]:
        runs[output.run].outputs.append(output)
    for output in found[:start]:
        if output.run in runs:
            runs[output.run].older.append(output)
    return Folder(root, [runs[index] for index in sorted(runs)], found[:start])


def _find(root: Path) -> Iterator[Output]:
    with os.scandir(root) as entries:
        directories = [entry.path for entry in entries
                       if re.fullmatch(r"[0-9]+", entry.name) and entry.is_dir()]
    for directory in directories:
        run = int(os.path.basename(directory))
        files: dict[tuple[str, int, int], dict[str, Path]] = {}
        for name in os.listdir(directory):
            match = _FILE.fullmatch(name)
            if match:
                key = match.group(1), int(match.group(2)), int(match.group(3))
                files.setdefault(key, {})[match.group(4)] = Path(directory, name)
        for key, paths in files.items():
            yield Output(run, *key, paths.get("bin"), paths.get("float"))


def _start_of_newest(outputs: list[Output]) -> int:
    """Where the newest run of the tool begins among outputs in the order of time."""
    seen = set()
    last = outputs[-1].run
    for at in range(len(outputs) - 1, -1, -1):
        output = outputs[at]
        if output.run > last or (output.run, *output.key) in seen:
            return at + 1
        seen.add((output.run, *output.key))
        last = output.run
    return 0


def _advice(root: Path) -> str:
    names = os.listdir(root)
    if not names:
        return "the directory is empty"
    if any(_FILE.fullmatch(name) for name in names):
        return f"it is the directory of one inference; name the one above, {root.resolve().parent}"
    return "name the directory that quilmrun was given with -o"
