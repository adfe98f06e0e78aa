"""What quilmrun-compare compares: the outputs of two sides, and which of them belong together."""

import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Iterator, Mapping, Optional, Protocol

from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.prepared_inputs import Manifest
from quilmrun_tools.artifacts.run_log import Tensor, name_in_files
from quilmrun_tools.artifacts.run_outputs import RunOutputs, shortened, text
from quilmrun_tools.artifacts.values import ArrayFile, Values, read_array_file
from quilmrun_tools.common.errors import Unreadable


class Reference(Protocol):
    """What the outputs are held against: those of another run, or arrays."""

    @property
    def path(self) -> str:
        """As the user named it."""

    @property
    def inputs(self) -> Optional[Manifest]:
        """What the inputs were made of, where that is known."""

    @property
    def runs(self) -> list[int]:
        """The numbers of the inferences."""

    def keys(self) -> list[Key]:
        """All outputs."""

    def values_of(self, run: int) -> dict[Key, Values]:
        """The outputs of one inference."""

    def tensor(self, key: Key) -> Optional[Tensor]:
        """The description of an output, where there is one."""


@dataclass
class ArrayOutputs:
    """Outputs that another program saved with numpy.save."""
    path: str
    columns: dict[Key, tuple[ArrayFile, list[int]]] = field(default_factory=dict)  # its inferences
    single: dict[int, dict[Key, Path]] = field(default_factory=dict)  # files of one inference
    inputs: Optional[Manifest] = None

    @property
    def runs(self) -> list[int]:
        """The numbers of the inferences."""
        return sorted({run for _, runs in self.columns.values() for run in runs} | {*self.single})

    def keys(self) -> list[Key]:
        """All outputs, by their names."""
        return sorted({*self.columns, *(key for files in self.single.values() for key in files)})

    def values_of(self, run: int) -> dict[Key, Values]:
        """The outputs of one inference."""
        found = {key: array.part(runs.index(run), len(runs))
                 for key, (array, runs) in self.columns.items() if run in runs}
        for key, path in self.single.get(run, {}).items():
            found[key] = read_array_file(path).part(0, 1)
        return found

    def tensor(self, _key: Key) -> Optional[Tensor]:
        """Nothing describes arrays."""
        return None


def read_arrays(path: str, output: RunOutputs) -> Optional[ArrayOutputs]:
    """A reference of .npy files: a file (for a model's only output), a folder of NAME.npy whose
    first dimension is the inference. None when it is neither."""
    place, side = Path(path), ArrayOutputs(path)
    if not place.is_dir():
        keys = output.keys()
        if place.suffix != ".npy":
            raise Unreadable(f"{path} is neither a folder nor an .npy file")
        if len(keys) != 1:
            raise Unreadable(f"{path} is one file, and the model has the outputs "
                             f"{', '.join(map(text, keys))}: name a folder with an .npy file for "
                             "each")
        side.columns[keys[0]] = _column(place, keys[0], output)
        return side
    for file in sorted(place.glob("*.npy")):
        key = _key(file.stem, output)
        _check_new(key in side.columns, file, key)
        side.columns[key] = _column(file, key, output)
    return side if side.columns else None


def read_single_arrays(path: str, output: RunOutputs) -> Optional[ArrayOutputs]:
    """A reference of RUN/NAME.npy; None when there is none."""
    side = ArrayOutputs(path)
    for file in sorted(Path(path).glob("[0-9]*/*.npy")):
        if re.fullmatch("[0-9]{1,9}", file.parent.name):
            key, files = _key(file.stem, output), side.single.setdefault(int(file.parent.name), {})
            _check_new(key in files, file, key)
            files[key] = file
    return side if side.single else None


def _check_new(known: bool, file: Path, key: Key) -> None:
    if known:
        raise Unreadable(f"{file} is a second array for output {text(key)}: remove one of them")


def _column(file: Path, key: Key, output: RunOutputs) -> tuple[ArrayFile, list[int]]:
    """An array and its inferences: one for each part of as many elements as the output has, when
    the first dimension divides into these or is that of all inferences; otherwise one for all.
    Beyond those that the output has, their numbers go on."""
    array, runs = read_array_file(file), output.runs
    count = next((found[key].count for run in runs if key in (found := output.values_of(run))), 0)
    parts = 1
    if array.shape and array.size:
        whole = array.size // count if count and array.size % count == 0 else len(runs)
        parts = whole if array.shape[0] % whole == 0 else 1
    return array, [*runs[:parts], *range(runs[-1] + 1, runs[-1] + 1 + parts - len(runs))]


def _key(stem: str, output: RunOutputs) -> Key:
    numbered = re.fullmatch(r"(.+)\.([0-9]{1,9})", stem)
    if numbered and (numbered.group(1), int(numbered.group(2))) in output.keys():
        return numbered.group(1), int(numbered.group(2))
    return name_in_files(stem), 0


def pair_keys(output: RunOutputs, reference: Reference, by_order: bool) -> dict[Key, Key]:
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


@dataclass(frozen=True)
class Pair:
    """An output of one inference, and what it is held against."""
    run: int
    key: Key
    output: Optional[Values]  # None: missing
    reference: Optional[Values]


def pairs_of(output: RunOutputs, reference: Reference, keys: Mapping[Key, Key],
             counterparts: Mapping[int, int], common: bool) -> Iterator[Pair]:
    """What is to be compared, inference by inference; `counterparts` has the reference's number
    for each inference of either side. With `common`, only what both sides have."""
    back = {theirs: ours for ours, theirs in keys.items()}
    runs = {*output.runs}
    for run, other in counterparts.items():
        ours = output.values_of(run) if run in runs else {}
        theirs = reference.values_of(other)
        # An output that only the reference has keeps the reference's name.
        for key in dict.fromkeys([*ours, *(back.get(key, key) for key in theirs)]):
            pair = Pair(run, key, ours.get(key), theirs.get(keys.get(key, key)))
            if (pair.output and pair.reference) or not common:
                yield pair


def same_numbers(output: RunOutputs, reference: Reference) -> dict[int, int]:
    """Inferences pair by their numbers."""
    return {run: run for run in sorted({*output.runs, *reference.runs})}
