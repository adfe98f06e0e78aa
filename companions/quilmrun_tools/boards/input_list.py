"""The tool's input list: its entries, and their order when they carry names of inputs."""

from __future__ import annotations

import os

from quilmrun_tools.boards.tool_command import check_length
from quilmrun_tools.common.errors import Unreadable


def read_input_list(path: str) -> list[bytes]:
    """The entries as the tool has them: each line behind the list's folder, and in front of that
    its name, if it has one. Raises Unreadable when the list cannot be read."""
    try:
        with open(path, "rb") as file:
            lines = file.read().split(b"\n")
    except OSError as error:
        raise Unreadable(f"cannot read the list {path}: {error.strerror}") from error
    folder = (os.path.dirname(os.fsencode(path).rstrip(b"/")) or b".") + b"/"
    return [_with_folder(line.partition(b"\0")[0], folder) for line in lines
            if line.partition(b"\0")[0]]


def _with_folder(line: bytes, folder: bytes) -> bytes:
    name, path = _split(line)
    return name + folder + path


def _split(entry: bytes) -> tuple[bytes, bytes]:
    """(name with its colon, path); the name is empty when there is none."""
    colon = entry.find(b":")
    if 0 < colon < len(entry) - 1:
        return entry[:colon + 1], entry[colon + 1:]
    return b"", entry


def group_by_name(entries: list[bytes], names: list[bytes]) -> list[bytes]:
    """The entries' paths in the order of the model's inputs, when every entry carries the name of
    one and they fill all inferences; otherwise the entries as they are."""
    if not names or len(entries) % len(names) != 0:
        return entries
    position = {name + b":": at for at, name in enumerate(names)}
    found = [_split(entry) for entry in entries]
    if not all(name in position for name, _ in found):
        return entries
    step = len(names)
    return [path for at in range(0, len(found), step)
            for _, path in sorted(found[at:at + step], key=lambda one: position[one[0]])]


def check_lengths(entries: list[bytes]) -> None:
    """Raises Unreadable for an entry that the tool refuses: the names are shorter on a board, so
    that it would not notice there."""
    for entry in entries:
        check_length(entry)
