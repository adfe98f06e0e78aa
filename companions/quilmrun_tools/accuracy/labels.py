"""The true class of every picture: from a text or CSV file, or from the folders of the pictures."""

import csv
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Optional, Sequence

import numpy as np

from quilmrun_tools.accuracy.pictures import Names, RunPicture
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import read_regular

Array = np.ndarray[Any, Any]

_LARGEST = 1 << 28  # bytes of a list that is read
_SHOWN = 3  # pictures that a message names


@dataclass
class Classes:
    """The classes of a model: their number, and their names where a file tells them."""
    count: int
    names: list[str] = field(default_factory=list)  # empty, or one for each class

    def name(self, index: int) -> str:
        """A class as it is shown."""
        return self.names[index] if self.names else str(index)

    def find(self, label: str) -> Optional[int]:
        """A class by its name, or else by its index."""
        found = [at for at, name in enumerate(self.names) if name == label]
        if len(found) > 1:
            raise Unreadable(f'"{label}" is the name of {len(found)} classes: give the index, '
                             f"{found[0]} or {found[1]}")
        if found:
            return found[0]
        if not re.fullmatch(r"[0-9]{1,9}", label):
            return None
        return int(label) if int(label) < self.count else None


def read_classes(path: Optional[str], count: int) -> Classes:
    """The names in a file, one a line in the order of the model's scores."""
    if path is None:
        return Classes(count)
    names = [line.strip() for line in read_lines(path)]
    if len(names) != count:
        raise Unreadable(f"{path} names {len(names)} classes, but the model gives {count} scores: "
                         "write one name a line, in the order of the scores")
    return Classes(count, names)


def read_lines(path: str) -> list[str]:
    """The lines of a text file, without empty ones at its end. Names of files need not be
    UTF-8."""
    text = read_regular(path, largest=_LARGEST).decode("utf-8-sig", "surrogateescape")
    return [line.rstrip("\r") for line in text.rstrip().split("\n")] if text.strip() else []


def from_file(path: str, pictures: Sequence[RunPicture], classes: Classes) -> Array:
    """The class of every picture by lines of KEY and LABEL. A key is the number of a picture in
    the run, or its path or as much of the path's end as tells it apart."""
    result = np.full(len(pictures), -1)
    names = Names(pictures)
    for number, line in enumerate(read_lines(path), 1):
        if not line.strip():
            continue
        try:
            found = _entry(line, pictures, names, classes)
            if not found and number == 1:  # a heading
                continue
            if not found:
                raise Unreadable(f"no class of the model in {line.strip()!r}"[:200])
            _put(result, *found)
        except Unreadable as error:
            raise Unreadable(f"{path}, line {number}: {error}") from None
    _check_all(result, pictures, path)
    return result


def _entry(line: str, pictures: Sequence[RunPicture], names: Names, classes: Classes
           ) -> Optional[tuple[list[int], int]]:
    """(pictures, class) of a line; None when it holds no class. Where a name holds the separator
    itself, the division counts whose label is a class."""
    found = {(key, label): at for key, label in _divisions(line)
             for at in [classes.find(label)] if at is not None}
    if not found:
        return None
    if len(found) > 1:
        found = {entry: at for entry, at in found.items() if _pictures(entry[0], pictures, names)}
    if len(found) != 1:
        raise Unreadable("it can be read in several ways: put a tab between picture and class")
    ((key, _), label), = found.items()
    return _pictures(key, pictures, names), label


def _divisions(line: str) -> list[tuple[str, str]]:
    """The ways to divide a line into key and label."""
    quoted = next(csv.reader([line])) if '"' in line and "," in line else []
    if len(quoted) == 2:
        return [(quoted[0].strip(), quoted[1].strip())]
    separator = "\t" if "\t" in line else "," if "," in line else r"\s+"
    text = line.strip()
    return [(text[:one.start()].strip(), text[one.end():].strip())
            for one in re.finditer(separator, text)]


def _pictures(key: str, pictures: Sequence[RunPicture], names: Names) -> list[int]:
    if re.fullmatch(r"[0-9]{1,15}", key):
        return [int(key)] if int(key) < len(pictures) else []
    found = names.find(key)
    paths = {pictures[at].path for at in found}
    if len(paths) > 1:
        raise Unreadable(f"{key} is the name of {len(paths)} pictures, such as {min(paths)}: write "
                         "as much of the path as tells them apart")
    return found


def _put(labels: Array, found: list[int], label: int) -> None:
    for at in found:
        if labels[at] not in (-1, label):
            raise Unreadable("the picture has another class in an earlier line")
        labels[at] = label


def _check_all(labels: Array, pictures: Sequence[RunPicture], path: str) -> None:
    missing = np.flatnonzero(labels < 0)
    if missing.size:
        named = ", ".join(str(pictures[at]) for at in missing[:_SHOWN])
        unknown = "" if any(picture.path for picture in pictures) else \
            "; pictures are known by number only, because there is no inputs.json (--inputs)"
        raise Unreadable(f"{path} has no class for {missing.size} of {len(pictures)} pictures, "
                         f"such as {named}{unknown}")


def from_folders(pictures: Sequence[RunPicture], classes: Classes) -> tuple[Array, Classes]:
    """The class of every picture by the folder that it lies in. Folders are classes by name, or
    by number; otherwise, when there are as many as classes, in the order of their names, as the
    usual loaders of such folders number them."""
    unknown = [picture for picture in pictures if not picture.path]
    if unknown:
        raise Unreadable("nothing tells which folders the pictures lie in: name inputs.json with "
                         "--inputs, or give --labels FILE")
    folders = [Path(picture.path).parent.name for picture in pictures]
    known = {folder: classes.find(folder) for folder in dict.fromkeys(folders)}
    if None in known.values() and not classes.names and len(known) == classes.count:
        classes = Classes(classes.count, sorted(known))
        known = {folder: classes.find(folder) for folder in known}
    for folder, label in known.items():
        if label is None:
            raise Unreadable(
                f"the folder {folder} is no class of the model: give --classes FILE with the names "
                f"of the {classes.count} classes, one a line" if not classes.names else
                f"the folder {folder} is none of the classes that --classes names")
    return np.array([known[folder] for folder in folders]), classes
