"""inputs.json, in which quilmrun-inputs says what every input file was made of."""

import functools
import json
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.common.decoding import encode, json_name, not_in_json
from quilmrun_tools.common.json_files import Format, headed, read_json

FORMAT = "quilmrun-inputs"
FILE_NAME = "inputs.json"
FORM = Format(FORMAT, 2, "prepare the inputs again with quilmrun-inputs")


@dataclass(frozen=True, slots=True)
class Source:
    """A picture or an array. Version 1 of the file has no `scale` and `offset`."""
    path: str  # absolute; "random" for random values
    sha256: str = ""
    width: int = 0  # pixels of the upright picture; 0 for arrays
    height: int = 0
    # Where the picture lies in the input: x_input = x * scale + offset in pixels, and likewise y.
    scale: Optional[tuple[float, float]] = None
    offset: Optional[tuple[float, float]] = None

    @property
    def label(self) -> str:
        """Its file name."""
        return Path(self.path).name


@dataclass(frozen=True, slots=True)
class PreparedFile:
    """An input file of one inference."""
    inference: int
    input: str
    file: str  # relative to the directory of inputs.json
    bytes: int
    sha256: str
    sources: tuple[Source, ...]  # one for each picture or other batch


@dataclass(frozen=True)
class PictureShape:
    """The pictures that an input takes."""
    width: int
    height: int
    color: str  # as --color has it
    layout: str  # "nchw", "nhwc", or "" for a camera's format


@dataclass(frozen=True)
class PreparedModel:
    """The model that the inputs were prepared for."""
    path: str = ""
    inputs: tuple[Tensor, ...] = ()
    pictures: dict[str, PictureShape] = field(default_factory=dict)  # by input; from version 2 on


@dataclass
class Manifest:
    """All of inputs.json."""
    created: str  # as 2026-11-23T07:00:00Z
    command: list[str]
    options: dict[str, object]  # as the command line was understood; for people only
    model: PreparedModel
    list_file: str = json_name("list", default="list.txt")
    batch: int = 1
    files: list[PreparedFile] = field(default_factory=list)
    path: str = not_in_json(default="")  # where it was read from

    def files_of(self, inference: int) -> list[PreparedFile]:
        """The input files of one inference, in the order of the model's inputs."""
        return self._by_inference.get(inference, [])

    def sources_of(self, inference: int) -> list[Source]:
        """The pictures or arrays of one inference, first input first, without repetitions."""
        return [*dict.fromkeys(source for file in self.files_of(inference)
                               for source in file.sources)]

    @functools.cached_property
    def _by_inference(self) -> dict[int, list[PreparedFile]]:
        index: dict[int, list[PreparedFile]] = {}
        for file in self.files:
            index.setdefault(file.inference, []).append(file)
        return index

    def to_dict(self) -> dict[str, object]:
        """As written to the file."""
        return headed(FORM, self)


def read_manifest(path: str) -> Manifest:
    """Reads an inputs.json, or the one in the directory `path`."""
    if Path(path).is_dir():
        path = str(Path(path) / FILE_NAME)
    manifest = read_json(path, FORM, Manifest)
    manifest.path = path
    return manifest


class ManifestWriter:
    """Writes the inputs.json of a new folder file by file, so that memory does not grow with their
    number. A context; the file is whole when it is left."""

    def __init__(self, folder: Path, head: Manifest) -> None:
        """`head` is all but the files."""
        text = json.dumps(head.to_dict(), indent=1)
        end = text.rindex("]")
        self._before, self._after = "\n  ", "\n " + text[end:] + "\n"
        # It is closed by __exit__().  # pylint: disable-next=consider-using-with
        self._file = open(folder / FILE_NAME, "x", encoding="ascii")
        self._file.write(text[:end])

    def __enter__(self) -> "ManifestWriter":
        return self

    def __exit__(self, *_: object) -> None:
        with self._file:
            self._file.write(self._after)

    def add(self, file: PreparedFile) -> None:
        """Adds an input file; those of an inference follow each other."""
        self._file.write(self._before + json.dumps(encode(file)))
        self._before = ",\n  "
