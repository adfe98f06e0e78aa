"""Reads the log of a quilmrun run, what it printed on standard output.

The log of a run with an empty list describes the model just as well as one of a whole run.
"""

import math
import re
from dataclasses import dataclass, field
from typing import Iterator, Optional

from quilmrun_tools.artifacts.element_types import type_name
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, read_regular


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
        """Its element type as users write it."""
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
    planned: int = 0  # groups in the list; 0 when not known
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


def read_log(path: AnyPath) -> RunLog:
    """Reads a log; raises Unreadable when the file is no log that describes a model."""
    return parse_log(read_regular(path, "the log").decode("utf-8", "surrogateescape"), str(path))


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


# Numbers have at most 18 digits, which 64 bits hold; the tool prints no longer ones.
_NUMBER = r"-?[0-9]{1,18}"
_TENSOR = re.compile(rf"^\[INFO\]  (Input|Output) index: ({_NUMBER}), name: (.*)\n"
                     rf"\[INFO\]  Shape: \[((?:{_NUMBER}, )*)\]\n"
                     rf"\[INFO\]  DataType: ({_NUMBER}), stride: ({_NUMBER}), "
                     rf"format: ({_NUMBER}), dataSizeWithStride: ({_NUMBER})$", re.M)
_ANY_TENSOR = re.compile(r"^\[INFO\]  (?:Input|Output) index: ", re.M)


def _read_tensors(text: str, log: RunLog) -> None:
    tensors = [(match.group(1), int(match.group(2)), _tensor(match))
               for match in _TENSOR.finditer(text)]
    log.batch_size = _described_batch([tensor for _, _, tensor in tensors])
    whole = len(tensors) == len(_ANY_TENSOR.findall(text))
    for kind, index, one in tensors:
        found = log.inputs if kind == "Input" else log.outputs
        if found and index == 0:
            raise Unreadable(f"{log.path} holds the logs of several runs: give the last one alone")
        whole = whole and index == len(found)
        found.append(Tensor(one.name, one.dims, one.type_code, one.stride,
                            one.size // log.batch_size, one.format))
    if not whole:
        raise Unreadable(f"{log.path} is damaged: it does not describe every input and output; "
                         "save again what quilmrun prints")


def _tensor(match: re.Match[str]) -> Tensor:
    """What a description says, with the size of all batches."""
    name, shape, *numbers = match.groups()[2:]
    code, stride, form, size = map(int, numbers)
    return Tensor(name, tuple(map(int, shape.split(", ")[:-1])), code, stride, size, form)


def _described_batch(tensors: list[Tensor]) -> int:
    """The batch size that the sizes of a description hold: they are printed for -b batches, whereas
    dimensions and strides are those of one."""
    for tensor in tensors:
        one = math.prod(tensor.dims[:-1]) * tensor.stride
        if tensor.dims and min(tensor.dims) > 0 and one > 0 and tensor.size > 0 and \
                tensor.size % one == 0:
            return tensor.size // one
    return 1


def _read_course(text: str, log: RunLog) -> None:
    def every(pattern: str) -> Iterator[re.Match[str]]:
        return re.finditer(pattern, text, re.M)

    def first(pattern: str) -> str:
        return next((match.group(1) for match in every(pattern)), "")

    echoed = [match.group(1) for match in every(r"^\[INFO\]  inputPath: (.*)$")]
    log.model_path = first(r"^\[INFO\]  load model (.*) success$") or (echoed + [""])[0]
    log.settings_path = (echoed + ["", ""])[1]
    log.input_files_per_group = int(first(r"^\[INFO\]  Model inputNum: ([0-9]{1,9})$") or 0)
    log.planned = int(first(r"^\[INFO\]  Model Iters : ([0-9]{1,9})$") or 0)
    files = [match.group(1) for match in every(r"^\[INFO\]  start to process file:(.*)$")]
    step = log.input_files_per_group or max(len(log.data_inputs), 1)
    log.groups = [files[at:at + step] for at in range(0, len(files), step)]
    log.executed = sum(1 for _ in every(r"^\[INFO\]  dump data success$"))
    log.errors = [match.group(1) for match in every(r"^\[ERROR\] (.*)$")]
    log.warnings = [match.group(1) for match in every(r"^\[WARN\]  (.*)$")]
    log.stopped = first(r"^\[WARN\]  stopped by a signal: (.*) done$")
    log.succeeded = bool(first(r"^\[INFO\]  (execute sample success)$"))
    log.summary = {match.group(1): float(match.group(2)) for match in
                   every(r"^\[INFO\]  ([A-Z][\w ]+): +(-?[0-9]{1,18}(?:\.[0-9]{1,18})?) "
                         r"(?:KB|ms)\.?$")}
