"""Writes input files and their list: one file for each input and inference.

Items of all inputs are loaded row by row, a row being what one batch takes, some rows ahead of the
writing; so memory does not grow with their number.
"""

import hashlib
import re
from dataclasses import dataclass, field, replace
from pathlib import Path
from typing import Optional, TextIO

from PIL import Image

from quilmrun_tools.artifacts import element_types
from quilmrun_tools.artifacts.prepared_inputs import Manifest, ManifestWriter, PreparedFile
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.parallel_map import parallel_map
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.inputs.pictures import Preparation
from quilmrun_tools.inputs.sources import Item, Loaded, pictures_at_a_time, preparation_of

LIST_NAME = "list.txt"
_LARGEST_FILE = 2**31 - 1  # bytes that quilmrun takes


@dataclass
class Column:
    """One data input, and what its files are made of."""
    tensor: Tensor
    items: list[Item]

    @property
    def per_row(self) -> int:
        """Items in one batch."""
        return pictures_at_a_time(self.items[0])

    @property
    def rows(self) -> int:
        """Batches of items, the last of which may be shorter."""
        return -(-len(self.items) // self.per_row)

    @property
    def preparation(self) -> Optional[Preparation]:
        """How its pictures are prepared, if it has any."""
        return next(filter(None, map(preparation_of, self.items)), None)

    def row(self, index: int) -> list[Item]:
        """A single row serves every inference."""
        at = index * self.per_row if self.rows > 1 else 0
        return self.items[at:at + self.per_row]


@dataclass
class Result:
    """What was written."""
    skipped: list[str] = field(default_factory=list)  # why, one for each unreadable source
    inferences: int = 0
    last_batch: int = 0  # rows in the last inference
    shown: list[tuple[str, Image.Image]] = field(default_factory=list)  # named, for the preview
    values: dict[str, int] = field(default_factory=dict)  # by input: elements that were prepared
    out_of_range: dict[str, int] = field(default_factory=dict)  # of them, beyond the type's range


def check(columns: list[Column], batch: int) -> int:
    """The number of rows; raises Unreadable when the inputs do not go together."""
    rows = max(column.rows for column in columns)
    for column in columns:
        tensor = column.tensor
        if column.rows not in (1, rows):
            counts = ", ".join(f"{other.rows} for {other.tensor.name}" for other in columns)
            raise Unreadable(f"the inputs differ in number: {counts}; give each as many, or one "
                             "that serves for all")
        row_bytes = element_types.dtype_of(tensor).itemsize * (tensor.dims or (1,))[-1]
        if batch > 1 and row_bytes < tensor.stride:
            raise Unreadable(f"{tensor.name} has padded rows ({row_bytes} of {tensor.stride} bytes)"
                             ", of which quilmrun takes one batch a file: leave out --batch")
        size = batch * tensor.elements * element_types.dtype_of(tensor).itemsize
        if size > _LARGEST_FILE:
            raise Unreadable(f"a file of {tensor.name} would have {size} bytes, and quilmrun takes "
                             f"{_LARGEST_FILE}: lower --batch")
    return rows


def write(columns: list[Column], head: Manifest, folder: Path, streams: Streams) -> Result:
    """Writes all files, the list and inputs.json, which begins with `head`, to `folder`. Unreadable
    sources are in the result, and the rows that they belong to left out."""
    rows = check(columns, head.batch)
    with ManifestWriter(folder, head) as manifest, \
            open(folder / head.list_file, "w", encoding="utf-8", errors="surrogateescape") as names:
        writer = _Writer(columns, folder, manifest, names)
        _write_rows(columns, rows, head.batch, writer, streams)
    return writer.result


def _write_rows(columns: list[Column], rows: int, batch: int, writer: "_Writer", streams: Streams
                ) -> None:
    result = writer.result
    waiting: list[list[list[Loaded]]] = []
    loaded = parallel_map(lambda row: _load(columns, row), range(rows))
    for row in progress(streams, loaded, rows, "preparing", "row" if batch > 1 else "inference"):
        if isinstance(row, list):
            waiting.append(row)
            result.shown += [(item.label, item.shown) for column in row for item in column
                             if item.shown]
        else:
            result.skipped += row.reasons
        if len(waiting) == batch:
            writer.write(waiting)
            waiting = []
    if waiting:
        writer.write(waiting)


@dataclass
class _Unreadable:
    reasons: list[str]


def _load(columns: list[Column], row: int) -> list[list[Loaded]] | _Unreadable:
    loaded: list[list[Loaded]] = []
    reasons: list[str] = []
    for column in columns:
        loaded.append([])
        for item in column.row(row):
            try:
                loaded[-1].append(item.load())
            except Unreadable as error:
                reasons.append(str(error))
    return _Unreadable(reasons) if reasons else loaded


class _Writer:
    """Writes the files of one inference after the other."""

    def __init__(self, columns: list[Column], folder: Path, manifest: ManifestWriter,
                 names: TextIO) -> None:
        self.result = Result()
        self._columns = columns
        self._folder = folder
        self._manifest, self._names = manifest, names
        # The tool reads names only when no input takes RPN data and no name holds a colon.
        self._named = len(columns) > 1 and all(
            column.tensor.name and not re.search("[:\n]", column.tensor.name)
            for column in columns)
        self._digits = len(str(max(*(column.rows - 1 for column in columns), 99999)))
        self._shared: dict[tuple[int, int], PreparedFile] = {}  # of inputs that never change

    def write(self, rows: list[list[list[Loaded]]]) -> None:
        """One inference of as many batches as there are rows."""
        inference = self.result.inferences
        for index, column in enumerate(self._columns):
            loaded = [item for row in rows for item in row[index]]
            file = self._shared.get((index, len(rows)))
            if not file:
                words = [column.tensor.name] * (len(self._columns) > 1) + [loaded[0].label]
                name = "_".join([f"{inference:0{self._digits}}", *map(_safe, words)]) + ".bin"
                file = self._write_file(inference, column.tensor.name, name, loaded)
                if column.rows == 1:
                    self._shared[index, len(rows)] = file
                self._count(column.tensor.name, loaded)
            self._manifest.add(replace(file, inference=inference))
            self._names.write(self._named * f"{column.tensor.name}:" + file.file + "\n")
        self.result.inferences += 1
        self.result.last_batch = len(rows)

    def _count(self, name: str, loaded: list[Loaded]) -> None:
        """Adds up the values of an input that its type cannot hold."""
        for total, counts in ((self.result.values, [item.values.size for item in loaded]),
                              (self.result.out_of_range, [item.out_of_range for item in loaded])):
            total[name] = total.get(name, 0) + sum(counts)

    def _write_file(self, inference: int, input_name: str, name: str,
                    loaded: list[Loaded]) -> PreparedFile:
        digest, size = hashlib.sha256(), 0
        with open(self._folder / name, "wb") as file:
            for item in loaded:
                content = item.values.tobytes()
                file.write(content)
                digest.update(content)
                size += len(content)
        return PreparedFile(inference, input_name, name, size, digest.hexdigest(),
                            tuple(item.source for item in loaded))


def _safe(name: str) -> str:
    """A part of a file name that every file system and list takes."""
    return re.sub(r"[^A-Za-z0-9_-]+", "_", name)[:60] or "_"
