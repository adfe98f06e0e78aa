"""The outputs of one run of the tool with all that is known of them: their types and shapes by the
run's log or record, and what the inputs were made of."""

import functools
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts import values
from quilmrun_tools.artifacts.element_types import FLOATS, STORED_AS, stored_as
from quilmrun_tools.artifacts.output_folder import (Key, NoOutputs, OutputFolder,
                                                    read_output_folder)
from quilmrun_tools.artifacts.prepared_inputs import FILE_NAME, Manifest, read_manifest
from quilmrun_tools.artifacts.record import Record, read_record
from quilmrun_tools.artifacts.run_log import RunLog, Tensor, read_log
from quilmrun_tools.artifacts.values import Values
from quilmrun_tools.common.errors import Unreadable

LOG_NAME, RECORD_NAME = "log.txt", "record.json"
_NAMED = 5  # files or runs that a line names


@dataclass(frozen=True)
class Sources:
    """Where the facts about a run's outputs come from. What is None is looked for: log.txt and
    record.json in the directory or above it, inputs.json beside the log's input files."""
    log: Optional[str] = None  # a log, or a record, whose name ends with .json
    inputs: Optional[str] = None
    types: dict[str, str] = field(default_factory=dict)  # by name in files: float, half or int32
    newest: bool = False  # take the newest run in the directory by its time stamps


@dataclass
class RunOutputs:
    """The outputs of one run of the tool."""
    path: str  # as the user named the directory
    folder: OutputFolder
    log: Optional[RunLog] = None
    inputs: Optional[Manifest] = None
    types: dict[str, str] = field(default_factory=dict)
    type_codes: list[int] = field(default_factory=list)  # by a record, in the order of keys()
    notes: list[str] = field(default_factory=list)

    @property
    def runs(self) -> list[int]:
        """The numbers of the inferences."""
        return self.folder.runs

    def keys(self) -> list[Key]:
        """All outputs, in the order of the model where the log tells it."""
        return self.folder.keys()

    def values_of(self, run: int) -> dict[Key, Values]:
        """The outputs of an inference."""
        return {output.key: values.of_dump(output.bin_path, self.stored_as(output.key))
                for output in self.folder.outputs_of(run) if output.bin_path}

    def tensor(self, key: Key) -> Optional[Tensor]:
        """What the log says of an output."""
        return self.log.output(*key) if self.log else None

    def stored_as(self, key: Key) -> str:
        """What the files of an output hold, as Values.type."""
        return self._stored_as[key]

    @functools.cached_property
    def _stored_as(self) -> dict[Key, str]:
        recorded = dict(zip(self.keys(), map(stored_as, self.type_codes)))
        return {key: self._stored_one(key, recorded) for key in self.keys()}

    def _stored_one(self, key: Key, recorded: dict[Key, str]) -> str:
        if key[0] in self.types:
            return STORED_AS[self.types[key[0]]]
        tensor = self.tensor(key)
        return stored_as(tensor.type_code) if tensor else recorded.get(key, FLOATS)

    def type_of(self, key: Key) -> str:
        """An output's type as users write it: by the log, or as its values are read."""
        tensor = self.tensor(key)
        if tensor:
            return tensor.type_name
        return next(name for name, kind in STORED_AS.items() if kind == self.stored_as(key))


def text(key: Key) -> str:
    """An output as it is shown: its number only when it is not the first of the name."""
    return key[0] if key[1] == 0 else f"{key[0]}.{key[1]}"


def shortened(names: list[str], count: int = 0) -> str:
    """The first names of a list that may be long, and how many of `count` are more."""
    more = max(count, len(names)) - _NAMED
    return ", ".join(names[:_NAMED]) + (f" and {more} more" if more > 0 else "")


def read_run_outputs(path: str, sources: Sources = Sources()) -> RunOutputs:
    """The outputs of the run in a directory; raises Unreadable when there are none, or when those
    of several runs cannot be told apart."""
    try:
        result = _read(path, sources)
    except NoOutputs as error:
        raise NoOutputs(_why_none(path, sources) or str(error)) from error
    folder = result.folder
    result.inputs = _manifest(sources.inputs, result)
    if folder.left_out:
        result.notes.append(f"{path}: {folder.left_out} outputs of other runs are left out: "
                            f"{shortened(folder.left_out_names, folder.left_out)}")
    lone = [str(output.float_path) for run in folder.incomplete_runs()
            for output in folder.outputs_of(run) if not output.bin_path]
    if lone:
        result.notes.append(f"without a .bin beside it: {shortened(lone)}")
    return result


def _read(path: str, sources: Sources) -> RunOutputs:
    named = sources.log
    record = _record(Path(path), named)
    if named and not named.endswith(".json"):
        log = read_log(named)
        return RunOutputs(path, read_output_folder(path, log, record, sources.newest), log,
                          types=sources.types)
    for place in () if named else (Path(path), Path(path) / ".."):
        log_found = _log_in(place)
        if not log_found:
            continue
        if place == Path(path):
            folder = read_output_folder(path, log_found, record, sources.newest)
            return RunOutputs(path, folder, log_found, types=sources.types)
        try:  # the log above may be that of another folder
            folder = read_output_folder(path, log_found, record, sources.newest)
        except Unreadable:
            continue
        if len(folder.runs) == log_found.executed:
            return RunOutputs(path, folder, log_found, types=sources.types)
    folder = read_output_folder(path, None, record, sources.newest)
    return RunOutputs(path, folder, types=sources.types, type_codes=_recorded_types(record))


def _log_in(place: Path) -> Optional[RunLog]:
    try:
        return read_log(place / LOG_NAME) if (place / LOG_NAME).is_file() else None
    except Unreadable:  # any other file of that name
        return None


def _record(folder: Path, named: Optional[str]) -> Optional[Record]:
    if named and named.endswith(".json"):
        return read_record(Path(named))
    for place in (folder, folder / ".."):
        try:
            if (place / RECORD_NAME).is_file():
                return read_record(place / RECORD_NAME)
        except Unreadable:
            continue
    return None


def _recorded_types(record: Optional[Record]) -> list[int]:
    """The type codes that the description asked for: those of all outputs, in their order."""
    return record.output_types if record else []


def _why_none(path: str, sources: Sources) -> str:
    """What the log, if there is one, says of a run without outputs."""
    log = Path(sources.log or Path(path) / LOG_NAME)
    try:
        found = read_log(str(log)) if log.is_file() else None
    except (Unreadable, ValueError):
        found = None
    if not found or found.executed:
        return ""
    if found.errors:
        return f'no outputs in {path}: by {log}, the run failed with "{found.errors[0]}"'
    return (f"no outputs in {path}: by {log}, the run had no inferences; give quilmrun a list (-i) "
            "that names input files")


def _manifest(named: Optional[str], result: RunOutputs) -> Optional[Manifest]:
    """The prepared inputs: those that were named, or those beside the log's input files."""
    files = [file for group in result.log.groups for file in group] if result.log else []
    if named:
        manifest = read_manifest(named)
        if not _about(manifest, files):
            result.notes.append(f"{manifest.path} does not name the input files of {result.path}'s "
                                "log")
        return manifest
    beside = Path(files[0]).parent / FILE_NAME if files else None
    try:
        if beside and beside.is_file():
            manifest = read_manifest(str(beside))
            return manifest if _about(manifest, files) else None
    except Unreadable as error:
        result.notes.append(f"{error}")
    return None


def _about(manifest: Manifest, files: list[str]) -> bool:
    """Whether a manifest lists the input files that a log names."""
    listed = {Path(file.file).name for file in manifest.files}
    return all(Path(file).name in listed for file in files)
