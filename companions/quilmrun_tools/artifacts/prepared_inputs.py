"""inputs.json, in which quilmrun-inputs says what every input file was made of."""

from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.json_files import read_json

FORMAT = "quilmrun-inputs"
FILE_NAME = "inputs.json"


@dataclass(frozen=True)
class Source:
    """A picture or an array."""
    path: str  # absolute; "random" for random values
    sha256: str = ""
    width: int = 0  # pixels; 0 for arrays
    height: int = 0

    @property
    def label(self) -> str:
        return Path(self.path).name


@dataclass(frozen=True)
class PreparedFile:
    """An input file of one inference."""
    inference: int
    input: str
    file: str  # relative to the directory of inputs.json
    bytes: int
    sha256: str
    sources: tuple[Source, ...]  # one for each batch


@dataclass
class Manifest:
    """All of inputs.json."""
    created: str  # as 2026-11-23T07:00:00Z
    command: list[str]
    options: dict[str, Any]
    model: dict[str, Any]  # "path" and "inputs", a list of dicts
    list_file: str = "list.txt"
    batch: int = 1
    files: list[PreparedFile] = field(default_factory=list)
    path: str = ""  # where it was read from

    def sources_of(self, inference: int) -> list[Source]:
        """The pictures or arrays of one inference, first input first, without repetitions."""
        found = dict.fromkeys(source for file in self._by_inference().get(inference, ())
                              for source in file.sources)
        return [*found]

    def _by_inference(self) -> dict[int, list[PreparedFile]]:
        if not hasattr(self, "_index"):
            self._index: dict[int, list[PreparedFile]] = {}
            for file in self.files:
                self._index.setdefault(file.inference, []).append(file)
        return self._index

    def to_dict(self) -> dict[str, Any]:
        """As written to the file."""
        value = asdict(self)
        files = value.pop("files")
        return {"format": FORMAT, "version": 1, "created": value["created"],
                "command": value["command"], "options": value["options"], "model": value["model"],
                "list": value["list_file"], "batch": value["batch"], "files": files}


def read_manifest(path: str) -> Manifest:
    """Reads an inputs.json, or the one in the directory `path`."""
    if Path(path).is_dir():
        path = str(Path(path) / FILE_NAME)
    value = read_json(path, FORMAT)
    try:
        files = [PreparedFile(**{**file, "sources": tuple(Source(**source)
                                                          for source in file["sources"])})
                 for file in value["files"]]
        return Manifest(value["created"], value["command"], value["options"], value["model"],
                        value["list"], value["batch"], files, path)
    except (KeyError, TypeError) as error:
        raise Unreadable(f"{path} is not complete: prepare the inputs again with "
                             "quilmrun-inputs") from error
