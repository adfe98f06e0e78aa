"""Finds what quilmrun-compare compares: the outputs of two folders, and which belong together."""

import itertools
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts import output_folder
from quilmrun_tools.artifacts import values
from quilmrun_tools.artifacts.prepared_inputs import FILE_NAME, Manifest, read_manifest
from quilmrun_tools.artifacts.record import read_record
from quilmrun_tools.artifacts.run_log import RunLog, Tensor, name_in_files, read_log
from quilmrun_tools.artifacts.values import Values
from quilmrun_tools.common.errors import Unreadable

Key = tuple[str, int]  # an output's name in files, and how many of that name come before it
LOG_NAME, RECORD_NAME = "log.txt", "record.json"
_NAMED = 5  # files or runs that a line names


@dataclass
class Side:
    """One of the two folders."""
    path: str
    runs: dict[int, dict[Key, Values]] = field(default_factory=dict)  # in the order of writing
    log: Optional[RunLog] = None
    type_codes: list[int] = field(default_factory=list)  # by a record, in the order of writing
    inputs: Optional[Manifest] = None
    left_out: list[str] = field(default_factory=list)  # files of earlier runs of the tool
    notes: list[str] = field(default_factory=list)

    def keys(self) -> list[Key]:
        """All outputs, in the order of the first run that has them."""
        return list(dict.fromkeys(key for run in self.runs.values() for key in run))

    def tensor(self, key: Key) -> Optional[Tensor]:
        """What the log says of an output."""
        return self.log.output(*key) if self.log else None


def text(key: Key) -> str:
    """An output as it is shown: its number only when it is not the first of the name."""
    return key[0] if key[1] == 0 else f"{key[0]}.{key[1]}"


def read_side(path: str, log: Optional[str], inputs: Optional[str], types: dict[str, str]) -> Side:
    """The outputs of the newest run in a folder. `log`, which may be a record too, and `inputs` are
    files that the user named; without them, log.txt in the folder or above it, or else the record
    there, and inputs.json beside the log's input files count."""
    side = Side(path)
    try:
        folder = output_folder.scan_folder(path)
    except Unreadable as error:
        reason = _why_none(Path(log or Path(path) / LOG_NAME), path)
        raise Unreadable(reason or str(error)) from error
    record = Path(log or Path(path) / RECORD_NAME)
    if not (log and record.suffix == ".json"):
        side.log = read_log(log) if log else _usual_log(Path(path), len(folder.runs))
    if not side.log and record.is_file():
        side.type_codes = _recorded_types(record, required=bool(log))
    side.inputs = _manifest(inputs, side.log)
    last = _last_run(side)
    for run in folder.runs:
        if last is not None and run.index > last[0]:
            side.left_out += [str(output.bin_path) for output in run.outputs]
            continue
        side.runs[run.index] = {
            output.key: values.of_dump(output.bin_path, _coded(output.key, at, side, types))
            for at, output in enumerate(_in_order(run.outputs, side.log)) if output.bin_path}
        side.notes += [f"{output.float_path} has no .bin beside it" for output in run.outputs
                       if not output.bin_path]
    side.left_out = [str(output.bin_path or output.float_path) for output in folder.older
                     ] + side.left_out
    if side.left_out:
        reason = f", or beyond the {last[0] + 1} inferences of {last[1]}" if last else ""
        side.notes.append(f"{path}: {len(side.left_out)} outputs of an earlier run, by their time "
                          f"stamps{reason}, are left out: {shortened(side.left_out)}")
    if not side.runs:
        raise Unreadable(f"{path} holds no outputs of the run that its log describes: fetch both "
                         "of the same run")
    return side


def _why_none(log: Path, path: str) -> str:
    """What the log, if there is one, says of a run without outputs."""
    try:
        found = read_log(str(log)) if log.is_file() else None
    except Unreadable:
        found = None
    if not found or found.executed:
        return ""
    if found.errors:
        return f'no outputs in {path}: by {log}, the run failed with "{found.errors[0]}"'
    return (f"no outputs in {path}: by {log}, the run had no inferences; give quilmrun a list (-i) "
            "that names input files")


def shortened(names: list[str]) -> str:
    """The first names of a list that may be long."""
    more = f" and {len(names) - _NAMED} more" if len(names) > _NAMED else ""
    return ", ".join(names[:_NAMED]) + more


def _usual_log(folder: Path, runs: int) -> Optional[RunLog]:
    """log.txt in the folder; or above it, when it tells of as many runs as there are: it may be
    that of another folder."""
    for path in (folder / LOG_NAME, folder / ".." / LOG_NAME):
        try:
            log = read_log(str(path)) if path.is_file() else None
        except Unreadable:  # any other file of that name
            log = None
        if log and (path.parent == folder or log.executed == runs):
            return log
    return None


def _manifest(named: Optional[str], log: Optional[RunLog]) -> Optional[Manifest]:
    if named:
        return read_manifest(named)
    if log and log.groups and log.groups[0]:
        beside = Path(log.groups[0][0]).parent / FILE_NAME
        try:
            return read_manifest(str(beside)) if beside.is_file() else None
        except Unreadable:
            return None
    return None


def _last_run(side: Side) -> Optional[tuple[int, str]]:
    """The number of the last inference that there can be, and what says so."""
    known = []
    if side.log and side.log.executed:
        known.append((side.log.executed - 1, side.log.path))
    if side.inputs and side.inputs.files:
        known.append((max(file.inference for file in side.inputs.files), side.inputs.path))
    return min(known, default=None)


def _in_order(found: list[output_folder.Output],
              log: Optional[RunLog]) -> list[output_folder.Output]:
    """In the order of the model where the log tells it, otherwise by time."""
    order = [name_in_files(tensor.name) for tensor in log.outputs] if log else []

    def place(output: output_folder.Output) -> tuple:
        return (order.index(output.name) if output.name in order else len(order),
                output.duplicate if output.name in order else 0, output.timestamp_us)
    return sorted(found, key=place)


def _recorded_types(path: Path, required: bool) -> list[int]:
    """The type codes that the description asked for: those of all outputs, in their order."""
    try:
        calls = read_record(path).calls
    except Unreadable:
        if required:
            raise
        return []
    return [call.result for call in calls if isinstance(call.result, int)
            and call.function == "quilm_mdl_get_output_data_type" and call.group is None]


def _coded(key: Key, at: int, side: Side, types: dict[str, str]) -> str:
    """What the files of an output hold, the `at`-th of its inference."""
    if key[0] in types:
        return types[key[0]]
    tensor = side.tensor(key)
    if tensor:
        return values.CODED.get(tensor.type_code, values.FLOAT)
    return values.CODED.get(side.type_codes[at], values.FLOAT) if at < len(side.type_codes) else \
        values.FLOAT


def read_arrays(path: str, output: Side) -> Optional[Side]:
    """A reference of .npy files: a file (for a model's only output), a folder of NAME.npy whose
    first dimension is the run, or a folder with RUN/NAME.npy. None when it is none of these."""
    place = Path(path)
    side = Side(path)
    if place.is_file():
        keys = output.keys()
        if place.suffix != ".npy" or len(keys) != 1:
            raise Unreadable(f"{path} is one file, and the model has the outputs "
                             f"{', '.join(map(text, keys))}: name a folder with an .npy file for "
                             "each" if place.suffix == ".npy" else
                             f"{path} is neither a folder nor an .npy file")
        _add_all(side, keys[0], place, output)
        return side
    for file in sorted(place.glob("*.npy")):
        _add_all(side, _key(file.stem, output), file, output)
    for file in sorted(place.glob("[0-9]*/*.npy")):
        if file.parent.name.isdigit():
            part, = values.of_array(file, 1, 0)
            side.runs.setdefault(int(file.parent.name), {})[_key(file.stem, output)] = part
    return side if side.runs else None


def _add_all(side: Side, key: Key, file: Path, output: Side) -> None:
    """The values of every run, also of those that the output does not have."""
    runs = sorted(output.runs)
    count = next((run[key].count for run in output.runs.values() if key in run), 0)
    for run, part in zip(itertools.chain(runs, itertools.count(runs[-1] + 1)),
                         values.of_array(file, len(runs), count)):
        side.runs.setdefault(run, {})[key] = part


def _key(stem: str, output: Side) -> Key:
    numbered = re.fullmatch(r"(.+)\.(\d+)", stem)
    if numbered and (numbered.group(1), int(numbered.group(2))) in output.keys():
        return numbered.group(1), int(numbered.group(2))
    return name_in_files(stem), 0


def pair_keys(output: Side, reference: Side, by_order: bool) -> dict[Key, Key]:
    """{output: its output in the reference}; raises Unreadable when nothing pairs."""
    ours, theirs = output.keys(), reference.keys()
    if by_order:
        if len(ours) != len(theirs):
            raise Unreadable(f"--by-order: {output.path} has {len(ours)} outputs, {reference.path} "
                             f"{len(theirs)}: these are different models")
        return dict(zip(ours, theirs))
    pairs = {key: key for key in ours if key in theirs}
    if not pairs:
        raise Unreadable(
            f"no output of {output.path} ({shortened([*map(text, ours)])}) is in {reference.path} "
            f"({shortened([*map(text, theirs)])}): these are different models, or a compiler "
            "renamed the outputs, which --by-order leaves aside")
    return pairs
