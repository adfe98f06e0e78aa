"""The pictures of a run in their order, and how other files name them."""

from dataclasses import dataclass
from pathlib import PurePath
from typing import Iterator, Optional, Sequence

from quilmrun_tools.artifacts.accuracy_results import Picture
from quilmrun_tools.artifacts.prepared_inputs import Manifest, PreparedFile, Source
from quilmrun_tools.artifacts.run_outputs import RunOutputs, shortened
from quilmrun_tools.common.errors import Unreadable


@dataclass(frozen=True)
class RunPicture:
    """One picture that went through the model."""
    run: int  # the number of the inference
    place: int  # within the inference, from 0
    path: str = ""  # by inputs.json, or of the input file that the log names
    source: Optional[Source] = None  # by inputs.json
    input: str = ""  # the model's input, by inputs.json

    def described(self) -> Picture:
        """As results name it."""
        return Picture(self.run, self.place, self.path)

    def __str__(self) -> str:
        return self.path or f"inference {self.run}" + f", picture {self.place}" * bool(self.place)


def check_whole(outputs: RunOutputs) -> None:
    """Raises Unreadable when inferences are missing: what is left would be judged as all."""
    runs = outputs.runs
    expected = outputs.folder.expected
    if outputs.inputs and outputs.inputs.files:
        expected = max(expected, 1 + max(file.inference for file in outputs.inputs.files))
    missing = sorted(set(range(expected)) - set(runs))
    if missing:
        raise Unreadable(f"{outputs.path} has no outputs of {len(missing)} of {expected} "
                         f"inferences: {shortened([*map(str, missing)])}; run it to its end")


def pictures_of(outputs: RunOutputs, run: int, rows: int) -> list[RunPicture]:
    """The pictures of an inference whose outputs have `rows` for as many pictures. By inputs.json
    there may be fewer, in the last batch."""
    file = _picture_file(outputs.inputs, run) if outputs.inputs else None
    if file:
        if len(file.sources) > rows:
            raise Unreadable(f"inference {run} was made of {len(file.sources)} pictures, but its "
                             f"outputs have rows for {rows}: name the inputs.json of this run with "
                             "--inputs")
        return [RunPicture(run, place, source.path, source, file.input)
                for place, source in enumerate(file.sources)]
    groups = outputs.log.groups if outputs.log else []
    path = groups[run][0] if rows == 1 and run < len(groups) and groups[run] else ""
    return [RunPicture(run, place, path) for place in range(rows)]


def count_of(outputs: RunOutputs, run: int) -> Optional[int]:
    """How many pictures an inference has, by inputs.json."""
    file = _picture_file(outputs.inputs, run) if outputs.inputs else None
    return len(file.sources) if file else None


def _picture_file(manifest: Manifest, run: int) -> Optional[PreparedFile]:
    """The input file that tells one picture from the other: one made of pictures, or else the
    first."""
    files = manifest.files_of(run)
    return next((file for file in files if any(source.width for source in file.sources)),
                files[0] if files else None)


class Names:
    """Finds pictures by their path or by as much of its end as tells them apart."""

    def __init__(self, pictures: Sequence[RunPicture]) -> None:
        self._by_end: dict[tuple[str, ...], list[int]] = {}
        for at, picture in enumerate(pictures):
            for end in _ends(picture.path) if picture.path else ():
                self._by_end.setdefault(end, []).append(at)

    def find(self, name: str) -> list[int]:
        """The pictures, by their index, whose path ends with `name`."""
        return self._by_end.get(_parts(name), [])


def _parts(name: str) -> tuple[str, ...]:
    return tuple(part for part in PurePath(name).parts if part != ".")


def _ends(path: str) -> Iterator[tuple[str, ...]]:
    parts = _parts(path)
    return (parts[at:] for at in range(len(parts)))
