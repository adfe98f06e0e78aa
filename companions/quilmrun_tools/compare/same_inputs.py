"""Whether both sides had the same inputs, by the checksums of their input files."""

from collections import defaultdict
from dataclasses import dataclass
from typing import Optional

from quilmrun_tools.artifacts.prepared_inputs import Manifest, PreparedFile
from quilmrun_tools.artifacts.run_outputs import RunOutputs
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.compare.sides import Reference

_NO_CHECKSUM = ""


@dataclass(frozen=True)
class InputDifference:
    """The first inference of which both sides had other inputs."""
    run: int
    input: str
    output_file: PreparedFile
    reference_file: PreparedFile
    count: int  # inferences that differ

    def __str__(self) -> str:
        ours, theirs = (", ".join(source.label for source in file.sources)
                        for file in (self.output_file, self.reference_file))
        made = f"was made of {ours or 'other values'} and of {theirs or 'other values'}" \
            if ours != theirs or not ours else \
            f"was prepared of {ours} in another way, or {ours} has changed"
        many = "inference" if self.count == 1 else "inferences"
        return (f"both sides had other inputs in {self.count} {many}, first in {self.run}: "
                f"{self.input} {made}; prepare both from the same list, pair by --by-input, or "
                "allow it with --inputs-differ")


def find_difference(output: Optional[Manifest], reference: Optional[Manifest],
                    counterparts: dict[int, int]) -> Optional[InputDifference]:
    """The first difference of the inferences that are compared; None when nothing tells of one."""
    first, count = None, 0
    if output and reference:
        for run, other in counterparts.items():
            files = _different(output, reference, run, other)
            if files:
                first = first or (run, *files)
                count += 1
    if not first:
        return None
    run, ours, theirs = first
    return InputDifference(run, ours.input, ours, theirs, count)


def _different(output: Manifest, reference: Manifest, run: int,
               other: int) -> Optional[tuple[PreparedFile, PreparedFile]]:
    listed = {file.input: file for file in reference.files_of(other)}
    for file in output.files_of(run):
        theirs = listed.get(file.input)
        if theirs and not _agree(file, theirs, _same_types(output, reference, file.input)):
            return file, theirs
    return None


def _agree(ours: PreparedFile, theirs: PreparedFile, same_type: bool) -> bool:
    """A model that takes another type gets other bytes of the same pictures."""
    if same_type:
        return _NO_CHECKSUM in (ours.sha256, theirs.sha256) or ours.sha256 == theirs.sha256
    return all(_NO_CHECKSUM in (one.sha256, other.sha256) or one.sha256 == other.sha256
               for one, other in zip(ours.sources, theirs.sources)) and \
        len(ours.sources) == len(theirs.sources)


def _same_types(output: Manifest, reference: Manifest, name: str) -> bool:
    """Whether an input takes the same on both sides, as far as is known."""
    ours, theirs = ({tensor.name: (tensor.type_code, tensor.dims)
                     for tensor in manifest.model.inputs} for manifest in (output, reference))
    return name not in ours or name not in theirs or ours[name] == theirs[name]


def pair_by_input(output: RunOutputs, reference: Reference) -> dict[int, int]:
    """The reference's inference with the same inputs, for every inference of either side; those
    without one get a number of their own beyond all others."""
    if not output.inputs or not reference.inputs:
        raise Unreadable("--by-input needs the inputs.json of both sides: name them with --inputs "
                         "and --reference-inputs")
    shared = sorted({file.input for file in output.inputs.files}
                    & {file.input for file in reference.inputs.files})
    if not shared:
        raise Unreadable("--by-input: both sides have no input of the same name")
    same_types = all(_same_types(output.inputs, reference.inputs, name) for name in shared)
    waiting: dict[tuple[str, ...], list[int]] = defaultdict(list)
    for run in reversed(reference.runs):
        waiting[_identity(reference.inputs, run, shared, same_types)].append(run)
    pairs, taken = {}, set()
    beyond = max([*output.runs, *reference.runs]) + 1
    for run in output.runs:
        same = waiting[_identity(output.inputs, run, shared, same_types)]
        pairs[run] = same.pop() if same else beyond + run
        taken.add(pairs[run])
    pairs.update({beyond + run: run for run in reference.runs if run not in taken})
    return pairs


def _identity(manifest: Manifest, run: int, shared: list[str], same_types: bool) -> tuple[str, ...]:
    """The checksums of an inference's inputs."""
    files = {file.input: file for file in manifest.files_of(run)}
    sums = [[files[name].sha256] if same_types else
            [source.sha256 for source in files[name].sources] for name in shared if name in files]
    if len(sums) < len(shared) or any(_NO_CHECKSUM in one for one in sums):
        raise Unreadable(f"--by-input: {manifest.path} has no checksums of inference {run}")
    return tuple(one for each in sums for one in each)
