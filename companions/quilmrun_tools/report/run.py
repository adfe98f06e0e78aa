"""Collects what there is of one run: log, memory report, record, comparison, prepared inputs.

Parts are looked for in the run's folder by their usual names. One that is missing or damaged does
not stop the report; the page says what is missing and how to get it.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable, Iterable

from quilmrun_tools.artifacts.accuracy_results import Results, read_accuracy
from quilmrun_tools.artifacts.board_results import BoardResults, read_board_results
from quilmrun_tools.artifacts.comparison import Comparison, read_comparison
from quilmrun_tools.artifacts.layer_results import LayersResult, read_result
from quilmrun_tools.artifacts.memory_report import read_memory_report
from quilmrun_tools.artifacts.prepared_inputs import FILE_NAME as MANIFEST_NAME
from quilmrun_tools.artifacts.prepared_inputs import Manifest, read_manifest
from quilmrun_tools.artifacts.record import Record, read_record
from quilmrun_tools.artifacts.run_log import RunLog, read_log
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams

LOADED_MODEL = "ModelInfoMem Size"  # in the log's summary
USUAL_NAMES = {"log": "log.txt", "memory": "memory_data.csv", "record": "record.json",
               "comparison": "comparison.json", "inputs": MANIFEST_NAME,
               "accuracy": "accuracy.json", "layers": "layers.json", "boards": "boards.json"}
OPTIONAL = ("accuracy", "layers", "boards")  # the page does not miss them

HOW_TO_GET = {
    "log": "save what the run prints: quilmrun -m MODEL -i LIST -j JSON -o OUT > RUN/log.txt",
    "memory": "quilmrun writes it beside its JSON file at the end of a run: copy it to RUN",
    "record": "run under the recorder: quilmrun-record -o RUN/record.json quilmrun -m MODEL ...",
    "comparison": "compare with a reference: quilmrun-compare OUT REFERENCE "
                  "--json RUN/comparison.json",
    "inputs": "prepare the inputs with quilmrun-inputs, or name its file with --inputs",
    "accuracy": "judge the run: quilmrun-accuracy OUT --labels FILE --json RUN/accuracy.json",
    "layers": "search for the layer that goes wrong: quilmrun-layers find PROBE RUN PC",
    "boards": "quilmrun-boards writes it into its output folder",
}

PART_TITLES = {"log": "Log", "memory": "Memory report", "record": "Record of the runtime's calls",
               "comparison": "Comparison of the outputs", "inputs": "Sources of the inputs",
               "accuracy": "Accuracy of the task", "layers": "Search for layers",
               "boards": "Boards of the run"}


@dataclass(frozen=True)
class Gap:
    """A part that is missing or cannot be read."""

    part: str
    reason: str  # empty for one that is simply not there

    @property
    def title(self) -> str:
        return PART_TITLES[self.part]

    @property
    def remedy(self) -> str:
        return HOW_TO_GET[self.part]


@dataclass
class Run:
    """One run of the tool, as far as it has left anything."""

    label: str
    folder: Path | None = None
    log: RunLog | None = None
    memory: dict[str, float] | None = None  # columns of memory_data.csv: KB and ms
    record: Record | None = None
    comparison: Comparison | None = None
    inputs: Manifest | None = None
    accuracy: Results | None = None
    layers: LayersResult | None = None
    boards: BoardResults | None = None
    found: dict[str, Path] = field(default_factory=dict)
    gaps: list[Gap] = field(default_factory=list)
    _checksums: dict[str, str] | None = None

    @property
    def model(self) -> str:
        """The model file's path as the run was given it; empty when nothing tells."""
        if self.log and self.log.model_path:
            return self.log.model_path
        return option(self.record.command if self.record else [], "-m")

    @property
    def inputs_folder(self) -> Path | None:
        """Where pictures that a relative path names are looked for too."""
        return self.found["inputs"].parent if "inputs" in self.found else self.folder

    def sources(self, inference: int) -> list[str]:
        """The pictures that an inference was made of; otherwise its input files."""
        if self.inputs:
            named = [source.path for source in self.inputs.sources_of(inference)]
            if named:
                return named
        if self.log and inference < len(self.log.groups):
            return list(self.log.groups[inference])
        return []


    def checksum(self, path: str) -> str:
        """The checksum of a picture when the inputs were made of it; empty when nothing tells."""
        if self._checksums is None:
            self._checksums = {source.path: source.sha256 for file in
                               (self.inputs.files if self.inputs else ())
                               for source in file.sources}
        return self._checksums.get(path, "")


def option(command: list[str], name: str) -> str:
    """The value of a one-letter option on a command line, such as -m; the last one counts."""
    value = ""
    for word, following in zip(command, [*command[1:], ""]):
        if word == name:
            value = following
        elif word.startswith(name) and len(word) > 2:
            value = word[2:]
    return value


def _read_memory(path: str) -> dict[str, float]:
    return read_memory_report(path).columns


def _read_layers(path: str) -> LayersResult:
    return read_result(Path(path))


READERS: dict[str, Callable[[str], Any]] = {
    "log": read_log, "memory": _read_memory, "record": read_record,
    "comparison": read_comparison, "inputs": read_manifest, "accuracy": read_accuracy,
    "layers": _read_layers, "boards": read_board_results}


def collect(folder: str | None, named: dict[str, str | None], label: str,
            streams: Streams) -> Run:
    """Reads what there is of a run.

    `named` has the paths that the user gave for single parts; such a file has to be readable. The
    others are looked for in `folder`, and a warning is given of those that
    cannot be read. Raises Unreadable when nothing is found at all.
    """
    root = Path(folder) if folder else None
    if root and not root.is_dir():
        raise Unreadable(f"{folder}: no such folder; name the one that holds log.txt, record.json "
                         "or what else there is of the run")
    run = Run(label or (root.resolve().name if root else "run"), root)
    for part, usual in USUAL_NAMES.items():
        if named.get(part):
            run.found[part] = Path(str(named[part]))
        elif root and (root / usual).exists():
            run.found[part] = root / usual
    if not run.found:
        raise Unreadable(_nothing_there(folder))
    for part in progress(streams, USUAL_NAMES, len(USUAL_NAMES), "reading"):
        _read_part(run, part, bool(named.get(part)), streams)
    if run.inputs is None and run.log:
        _find_inputs(run, run.log)
    if run.memory and run.log and LOADED_MODEL in run.log.summary:  # with -p 1, and only there
        run.memory["Model Info Memory Size(KB)"] = run.log.summary[LOADED_MODEL]
    return run


def _nothing_there(folder: str | None) -> str:
    if folder is None:
        return "name the folder of a run, or its parts with --log, --record, --comparison, ..."
    empty = not any(Path(folder).iterdir())
    state = "is empty; a run's folder has some of" if empty else "holds none of"
    return f"{folder} {state} {', '.join(USUAL_NAMES.values())}; {HOW_TO_GET['log']}"


def _read_part(run: Run, part: str, required: bool, streams: Streams) -> None:
    if part not in run.found:
        if part not in OPTIONAL:
            run.gaps.append(Gap(part, ""))
        return
    try:
        setattr(run, part, READERS[part](str(run.found[part])))
    except Unreadable as error:
        if required:
            raise
        streams.warn(str(error))
        run.gaps.append(Gap(part, str(error)))


def _find_inputs(run: Run, log: RunLog) -> None:
    """Takes the inputs.json that lies beside the run's input files, when it is about them."""
    first = next((file for group in log.groups for file in group), "")
    beside = Path(first).parent / MANIFEST_NAME
    if not first or not beside.is_file() or any(gap.reason for gap in run.gaps
                                                if gap.part == "inputs"):
        return
    try:
        manifest = read_manifest(str(beside))
    except Unreadable:
        return
    if Path(first).name in _names(file.file for file in manifest.files):
        run.inputs, run.found["inputs"] = manifest, beside
        run.gaps = [gap for gap in run.gaps if gap.part != "inputs"]


def _names(files: Iterable[str]) -> set[str]:
    return {Path(file).name for file in files}
