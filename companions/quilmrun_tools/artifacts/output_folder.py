"""Finds the output files of quilmrun, DIRECTORY/RUN/NAME.DUPLICATE.TIMESTAMP.bin and .float, and
tells which of them one run of the tool wrote.

The tool never deletes, so a directory may hold the files of several runs. Time stamps alone do not
tell these apart: the clock of a board may start in 1970, or be set while the tool runs. Where they
are needed, everything in the directory has to agree with what they say; otherwise none is chosen.
"""

import bisect
import functools
import os
import re
from array import array
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Iterator, Optional

import numpy as np

from quilmrun_tools.artifacts.record import Record
from quilmrun_tools.artifacts.run_log import RunLog, name_in_files
from quilmrun_tools.common.errors import Unreadable

Key = tuple[str, int]  # an output's name in files, and how many of that name come before it
Table = np.ndarray[Any, Any]

# The tool pads no number with zeros.
_FILE = re.compile(r"(.+)\.(0|[1-9][0-9]{0,8})\.(0|[1-9][0-9]{0,17})\.(bin|float)", re.DOTALL)
_INFERENCE = re.compile(r"0|[1-9][0-9]{0,8}")
_ROW = np.dtype([("run", "i4"), ("key", "i4"), ("stamp", "i8"), ("bin", "?"), ("float", "?")])
_NAMED = 1000  # files left out that are kept by name
_STEPS = 10  # a step within a run may be so many times the usual one
_SHORT_STEP_US = 10_000_000  # a step below this is never too long
_CLOCK_SLACK_US = 1_000_000  # between the clocks of a record and of the outputs


class NoOutputs(Unreadable):
    """A directory has no output files at all."""


@dataclass(frozen=True)
class OutputFile:
    """The files of one output of one inference."""
    run: int  # the number of the inference
    name: str
    duplicate: int  # earlier outputs of the same name in the same inference
    timestamp_us: int  # microseconds since 1970
    stem: str  # the files' path without .bin and .float
    has_bin: bool
    has_float: bool

    @property
    def bin_path(self) -> Optional[Path]:
        """The file of raw floats; None when there is none."""
        return Path(self.stem + ".bin") if self.has_bin else None

    @property
    def float_path(self) -> Optional[Path]:
        """The file of text; None when there is none."""
        return Path(self.stem + ".float") if self.has_float else None

    @property
    def key(self) -> Key:
        """What tells it from the other outputs of the inference."""
        return self.name, self.duplicate


@dataclass
class OutputFolder:
    """What one run of the tool wrote to a directory. Its table has one row an output of an
    inference, so that a million of them fit into memory."""
    path: Path
    names: list[Key]  # by the number that the table has for an output
    table: Table  # by inference, then in the order of writing
    log: Optional[RunLog] = None
    left_out: int = 0  # outputs of other runs
    left_out_names: list[str] = field(default_factory=list)  # the first of them

    @property
    def runs(self) -> list[int]:
        """The numbers of its inferences."""
        return self._places[0]

    @functools.cached_property
    def _places(self) -> tuple[list[int], list[int]]:
        """The numbers of the inferences, and where their rows begin and the last ones end."""
        numbers, starts = np.unique(self.table["run"], return_index=True)
        return numbers.tolist(), [*starts.tolist(), len(self.table)]

    @property
    def expected(self) -> int:
        """How many inferences there were to be, by the log; otherwise as many as there are."""
        known = len(self.runs)
        return max(known, self.log.planned, self.log.executed) if self.log else known

    def keys(self) -> list[Key]:
        """All outputs: in the order of the model where the log tells it, otherwise of writing."""
        found, first = np.unique(self.table["key"], return_index=True)
        keys = [self.names[key] for key in found[np.argsort(first)]]
        if self.log:
            order = [name_in_files(tensor.name) for tensor in self.log.outputs]
            keys.sort(key=lambda key: (order.index(key[0]), key[1]) if key[0] in order
                      else (len(order), 0))
        return keys

    def outputs_of(self, run: int) -> list[OutputFile]:
        """The outputs of one inference, in the order of writing."""
        numbers, starts = self._places
        at = bisect.bisect_left(numbers, run)
        if at == len(numbers) or numbers[at] != run:
            return []
        return [self._output(row) for row in self.table[starts[at]:starts[at + 1]]]

    def incomplete_runs(self) -> list[int]:
        """The inferences of which an output has no .bin."""
        return [int(run) for run in np.unique(self.table["run"][~self.table["bin"]])]

    def stamps(self) -> list[tuple[int, int]]:
        """(first, last) time stamp of every inference, in microseconds since 1970."""
        starts, stamps = self._places[1][:-1], self.table["stamp"]
        return [(int(low), int(high)) for low, high in
                zip(np.minimum.reduceat(stamps, starts), np.maximum.reduceat(stamps, starts))]

    def _output(self, row: Any) -> OutputFile:
        run, place, stamp, has_bin, has_float = row.item()
        key = self.names[place]
        stem = f"{self.path}/{run}/{key[0]}.{key[1]}.{stamp}"
        return OutputFile(run, key[0], key[1], stamp, stem, has_bin, has_float)

    def chosen(self, rows: Table) -> "OutputFolder":
        """This folder with some of its rows."""
        others = np.delete(self.table, rows)
        kept = OutputFolder(self.path, self.names, self.table[np.sort(rows)], self.log, len(others))
        kept.left_out_names = [str(output.bin_path or output.float_path) for output in
                               map(self._output, others[:_NAMED])]
        return kept


def read_output_folder(folder: str, log: Optional[RunLog] = None, record: Optional[Record] = None,
                       newest: bool = False) -> OutputFolder:
    """The outputs of the run in a directory that `log` and `record` are about; with `newest`, those
    of the newest by time stamps. Raises Unreadable when there are none, or when there are those of
    several runs and nothing tells which are meant."""
    root = Path(folder)
    found = _find(root, folder)
    found.log = log
    if newest:
        return found.chosen(_Choice(found, log, record).newest())
    return found.chosen(_Choice(found, log, record).meant())


def _find(root: Path, folder: str) -> OutputFolder:
    """Everything in a directory."""
    numbers: dict[Key, int] = {}
    columns = array("q"), array("q"), array("q"), array("q")
    try:
        for run, key, stamp, kind in _scan(root):
            for column, value in zip(columns, (run, numbers.setdefault(key, len(numbers)), stamp,
                                               kind)):
                column.append(value)
    except (OSError, ValueError) as error:
        name = getattr(error, "filename", None) or folder
        raise Unreadable(f"cannot read {name}: {getattr(error, 'strerror', None) or error}; name "
                         "the directory that quilmrun was given with -o") from error
    if not numbers:
        raise NoOutputs(f"no outputs in {folder}: {_advice(root)}")
    table = np.empty(len(columns[0]), _ROW)
    table["run"], table["key"], table["stamp"], kinds = columns
    table["bin"], table["float"] = np.bitwise_and(kinds, 1), np.bitwise_and(kinds, 2)
    return OutputFolder(root, [*numbers], table[np.lexsort((table["stamp"], table["run"]))])


def _scan(root: Path) -> Iterator[tuple[int, Key, int, int]]:
    """(inference, output, time stamp, 1 for a .bin + 2 for a .float)"""
    with os.scandir(root) as entries:
        directories = [entry.name for entry in entries
                       if _INFERENCE.fullmatch(entry.name) and entry.is_dir()]
    for name in directories:
        files: dict[tuple[str, int, int], int] = {}
        for file in sorted(os.listdir(os.path.join(root, name))):
            match = _FILE.fullmatch(file)
            if match:
                key = match.group(1), int(match.group(2)), int(match.group(3))
                files[key] = files.get(key, 0) | (1 if match.group(4) == "bin" else 2)
        for (output, duplicate, stamp), kinds in files.items():
            yield int(name), (output, duplicate), stamp, kinds


def _advice(root: Path) -> str:
    names = os.listdir(root)
    if not names:
        return "the directory is empty"
    if any(_FILE.fullmatch(name) for name in names):
        return f"it is the directory of one inference; name the one above, {root.resolve().parent}"
    return "name the directory that quilmrun was given with -o"


class _Choice:
    """Which of all outputs in a directory belong to one run of the tool."""

    def __init__(self, folder: OutputFolder, log: Optional[RunLog],
                 record: Optional[Record]) -> None:
        self._folder, self._table = folder, folder.table
        self._log, self._record = log, record
        self._counted = log.executed if log else 0

    def meant(self) -> Table:
        """The rows of the outputs that count; raises Unreadable when that is not certain."""
        if self._once() and self._uniform(self._table):
            return self._single()
        segments = self._segments()
        if len(segments) == 1:
            return self._single()
        for candidates in (self._by_record(segments), self._by_log(segments)):
            if len(candidates) == 1 and self._steady(candidates[0]):
                return candidates[0]
        told = "neither a log nor a record tells" if not self._log and not self._record else \
            "its log and record do not tell"
        raise Unreadable(f"{self._folder.path} holds the outputs of several runs of quilmrun, and "
                         f"{told} for certain which are meant: {self._remedy()}")

    def newest(self) -> Table:
        """The newest run by time stamps."""
        return self._segments()[-1]

    def _remedy(self) -> str:
        return ("let every run write to a folder of its own (-o), or take the newest by its time "
                "stamps with --newest")

    def _single(self) -> Table:
        """All outputs, as those of one run; without the last inference, where a run that failed
        broke off within it."""
        runs = np.unique(self._table["run"])
        if not self._counted or len(runs) <= self._counted:
            return np.arange(len(self._table))
        if self._log and not self._log.succeeded and len(runs) == self._counted + 1:
            return np.flatnonzero(self._table["run"] < runs[-1])
        raise Unreadable(f"{self._folder.path} holds the outputs of {len(runs)} inferences, and "
                         f"the log {self._log.path if self._log else ''} tells of {self._counted}: "
                         f"name the log of these outputs, or {self._remedy()}")

    def _once(self) -> bool:
        """Whether no inference has two files of one output."""
        places = self._table["run"].astype("i8") * len(self._folder.names) + self._table["key"]
        return len(np.unique(places)) == len(places)

    def _uniform(self, rows: Table) -> bool:
        """Whether all inferences have all outputs, when none has one twice."""
        return len(np.unique(rows["run"])) * len(np.unique(rows["key"])) == len(rows)

    def _whole(self, segment: Table) -> bool:
        """Whether a segment is what a run of the tool writes: inferences from 0 on, with all
        outputs each."""
        rows = self._table[segment]
        return self._uniform(rows) and int(rows["run"].max()) + 1 == len(np.unique(rows["run"]))

    def _segments(self) -> list[Table]:
        """The rows of what seem to be single runs, oldest first. The tool numbers inferences from
        0, so going back in time a run ends where the number rises or an output comes again."""
        # Of equal stamps the later inference counts as the later file.
        order = np.lexsort((self._table["run"], self._table["stamp"]))
        segments: list[list[int]] = [[]]
        seen: set[tuple[int, int]] = set()
        last = -1
        for at in order[::-1]:
            run, key = int(self._table["run"][at]), int(self._table["key"][at])
            if segments[-1] and (run > last or (run, key) in seen):
                segments.append([])
                seen.clear()
            segments[-1].append(at)
            seen.add((run, key))
            last = run
        return [np.array(segment) for segment in reversed(segments)]

    def _by_record(self, segments: list[Table]) -> list[Table]:
        """The segments that were written while the record was made."""
        if not self._record or not self._record.start_us:
            return []
        start = self._record.start_us - _CLOCK_SLACK_US
        end = start + 1000 * self._record.span_ms + 2 * _CLOCK_SLACK_US
        count = self._record.inferences or self._counted
        within = [segment for segment in segments
                  if start <= self._table["stamp"][segment].min()
                  and self._table["stamp"][segment].max() <= end]
        return [segment for segment in within if len(within) == 1 and self._whole(segment)
                and count in (0, len(np.unique(self._table["run"][segment])))]

    def _by_log(self, segments: list[Table]) -> list[Table]:
        """The segments with as many inferences as the log has, and with its outputs. If any of the
        others is not whole, a clock was set within a run, and stamps tell nothing."""
        if not self._log or not self._counted or not all(map(self._whole, segments)):
            return []
        wanted = sorted(name_in_files(tensor.name) for tensor in self._log.outputs)
        return [segment for segment in segments if self._names(segment) == wanted
                and len(np.unique(self._table["run"][segment])) == self._counted]

    def _names(self, segment: Table) -> list[str]:
        """The names of all outputs in a segment."""
        return sorted(self._folder.names[key][0] for key in np.unique(self._table["key"][segment]))

    def _steady(self, segment: Table) -> bool:
        """Whether no two inferences of a segment are much farther from each other in time than is
        usual: a gap may be where a clock was set, and the ends of two runs meet."""
        stamps = np.sort(self._table["stamp"][segment])
        steps = np.diff(stamps)
        return steps.size == 0 or bool(
            steps.max() <= max(_STEPS * int(np.median(steps)), _SHORT_STEP_US))
