"""Finds the files that the user's words stand for: folders, text lists, or the files themselves."""

import os
from pathlib import Path
from typing import Iterator

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import cannot_read, read_regular
from quilmrun_tools.inputs import arrays
from quilmrun_tools.inputs import pictures

LIST_SUFFIXES = (".txt", ".lst")
RAW_SUFFIXES = (".nv12", ".nv21", ".yuv", ".rgb", ".raw", ".bin")
_LARGEST_LIST = 1 << 28  # bytes


def find_files(words: list[str]) -> list[Path]:
    """The files in the order of the words, those of a folder in the order of their names."""
    return [path for word in words for path in _files(Path(word), within_list=False)]


def _files(word: Path, within_list: bool) -> Iterator[Path]:
    try:
        if word.is_dir():
            yield from _folder(word)
        elif word.suffix.lower() in LIST_SUFFIXES and not within_list:
            yield from _listed(word)
        elif not word.exists() and not within_list:
            raise Unreadable(f"there is no {word}: name a folder, a picture, an array or a list")
        else:
            yield word
    except (OSError, ValueError) as error:  # ValueError: a name with a null byte
        raise cannot_read(word, error) from error


def _listed(path: Path) -> Iterator[Path]:
    text = read_regular(path, largest=_LARGEST_LIST).decode("utf-8", "surrogateescape")
    names = [line.rstrip("\r") for line in text.split("\n") if line.strip()]
    if not names:
        raise Unreadable(f"{path} names no files: write one path a line, relative to it")
    for name in names:
        yield from _files(path.parent / name, within_list=True)


def _folder(folder: Path) -> list[Path]:
    """Pictures and arrays, or else raw data, or else what the folders in it hold."""
    found = _within(folder, set())
    if not found:
        suffixes = ", ".join(pictures.SUFFIXES + arrays.SUFFIXES + RAW_SUFFIXES)
        raise Unreadable(f"{folder} holds no pictures, arrays or raw data ({suffixes})")
    return found


def _within(folder: Path, above: set[tuple[int, int]]) -> list[Path]:
    status = os.stat(folder)
    if (status.st_dev, status.st_ino) in above:  # a link that leads back
        return []
    names = sorted(name for name in os.listdir(folder) if not name.startswith("."))
    for suffixes in (pictures.SUFFIXES + arrays.SUFFIXES, RAW_SUFFIXES):
        found = [folder / name for name in names if Path(name).suffix.lower() in suffixes
                 and not (folder / name).is_dir()]
        if found:
            return found
    above = above | {(status.st_dev, status.st_ino)}
    return [path for name in names if (folder / name).is_dir()
            for path in _within(folder / name, above)]
