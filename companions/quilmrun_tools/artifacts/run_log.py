"""Reads the log of a quilmrun run, what it printed on standard output.

The log of a run with an empty list describes the model just as well as one of a whole run.
"""

import math
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Iterator, Optional

from quilmrun_tools.common.errors import Unreadable

# Element types by the runtime's codes: (numpy's name, as users write it).
TYPES = {0: ("<f4", "float"), 1: ("<f2", "half"), 2: ("<i1", "int8"), 3: ("<i4", "int32"),
         4: ("<u1", "uint8"), 6: ("<i2", "int16"), 7: ("<u2", "uint16")}


def type_name(code: int) -> str:
    """As users write it: float, half, int8, ..."""
    return TYPES[code][1] if code in TYPES else f"type {code}"


@dataclass(frozen=True)
class Tensor:
    """An input or output as the runtime describes it."""
    name: str
    dims: tuple[int, ...]  # elements, outermost first
    type_code: int
    stride: int  # bytes from the start of a row (the last dimension) to that of the next
    size: int  # bytes of one batch, row padding included
    format: int = 0

    @property
    def elements(self) -> int:
        """Elements of one batch, without row padding."""
        return math.prod(self.dims)

    @property
    def type_name(self) -> str:
        return type_name(self.type_code)


@dataclass
class RunLog:
    """What one run said about its model and its course."""
    path: str
    model_path: str = ""
    settings_path: str = ""
    inputs: list[Tensor] = field(default_factory=list)  # all, with task and work buffer
    outputs: list[Tensor] = field(default_factory=list)
    batch_size: int = 1
    input_files_per_group: int = 0  # without those that take RPN data; 0 when not known
    groups: list[list[str]] = field(default_factory=list)  # input files of every group begun
    executed: int = 0  # groups with outputs
    errors: list[str] = field(default_factory=list)
    warnings: list[str] = field(default_factory=list)
    stopped: str = ""  # "3 of 20 groups" for a run that was stopped by a signal
    succeeded: bool = False
    summary: dict[str, float] = field(default_factory=dict)  # as printed with -p 1, in KB and ms

    @property
    def data_inputs(self) -> list[Tensor]:
        """The inputs that take files or RPN data."""
        return self.inputs[:-2]

    @property
    def buffers(self) -> list[Tensor]:
        """Task buffer and work buffer, the last two inputs."""
        return self.inputs[-2:]

    def output(self, file_name: str, duplicate: int) -> Optional[Tensor]:
        """The output whose files carry this name and count of earlier ones of the same name."""
        same = [tensor for tensor in self.outputs if name_in_files(tensor.name) == file_name]
        return same[duplicate] if duplicate < len(same) else None


def name_in_files(name: str) -> str:
    """An output's name as its files carry it."""
    return re.sub(r"[\\./]", "_", name) or "output"


def read_log(path: str) -> RunLog:
    """Reads a log; raises Unreadable when the file is no log that describes a model."""
    try:
        text = Path(path).read_text(encoding="utf-8", errors="surrogateescape")
    except OSError as error:
        raise Unreadable(f"cannot read the log {path}: {error.strerror}") from error
    return parse_log(text, path)


def parse_log(text: str, path: str = "the log") -> RunLog:
    """What a log says; `path` is for messages only."""
    log = RunLog(path)
    _read_tensors(text, log)
    if len(log.inputs) < 2:
        reason = re.search(r"^\[ERROR\] (.*)", text, re.M)
        raise Unreadable(f"{path} describes no model: " + (
            f'the run failed with "{reason.group(1)}"' if reason else
            "save what quilmrun prints, as in quilmrun -m MODEL -i LIST -j JSON > log.txt"))
    _read_course(text, log)
    return log


_TENSOR = re.compile(r"^\[INFO\]  (Input|Output) index: (\d+), name: (.*)\n"
                     r"\[INFO\]  Shape: \[([-\d, ]*)\]\n"
                     r"\[INFO\]  DataType: (-?\d+), stride: (\d+), format: (-?\d+), "
                     r"dataSizeWithStride: (\d+)$", re.M)


def _read_tensors(text: str, log: RunLog) -> None:
    rows = [(match.group(1), match.group(3),
             tuple(int(dim) for dim in re.findall(r"-?\d+", match.group(4))),
             *map(int, match.groups()[4:])) for match in _TENSOR.finditer(text)]
    log.batch_size = _described_batch(rows)
    for kind, name, dims, code, stride, form, size in rows:
        tensor = Tensor(name, dims, code, stride, size // log.batch_size, form)
        (log.inputs if kind == "Input" else log.outputs).append(tensor)


def _described_batch(rows: list[tuple]) -> int:
    """The batch size that the sizes of a description hold: they are printed for -b batches, whereas
    dimensions and strides are those of one."""
    for _, _, dims, _, stride, _, size in rows:
        one = math.prod(dims[:-1]) * stride
        if dims and min(dims) > 0 and one and size % one == 0 and size:
            return size // one
    return 1


def _read_course(text: str, log: RunLog) -> None:
    def every(pattern: str) -> Iterator[re.Match]:
        return re.finditer(pattern, text, re.M)

    def first(pattern: str) -> str:
        return next((match.group(1) for match in every(pattern)), "")

    echoed = [match.group(1) for match in every(r"^\[INFO\]  inputPath: (.*)$")]
    log.model_path = first(r"^\[INFO\]  load model (.*) success$") or (echoed + [""])[0]
    log.settings_path = (echoed + ["", ""])[1]
    log.input_files_per_group = int(first(r"^\[INFO\]  Model inputNum: (\d+)$") or 0)
    files = [match.group(1) for match in every(r"^\[INFO\]  start to process file:(.*)$")]
    step = log.input_files_per_group or max(len(log.data_inputs), 1)
    log.groups = [files[at:at + step] for at in range(0, len(files), step)]
    log.executed = sum(1 for _ in every(r"^\[INFO\]  dump data success$"))
    log.errors = [match.group(1) for match in every(r"^\[ERROR\] (.*)$")]
    log.warnings = [match.group(1) for match in every(r"^\[WARN\]  (.*)$")]
    log.stopped = first(r"^\[WARN\]  stopped by a signal: (.*) done$")
    log.succeeded = bool(first(r"^\[INFO\]  (execute sample success)$"))
    log.summary = {match.group(1): float(match.group(2)) for match in
                   every(r"^\[INFO\]  ([A-Z][\w ]+): +(-?[\d.]+) (?:KB|ms)\.?$")}
