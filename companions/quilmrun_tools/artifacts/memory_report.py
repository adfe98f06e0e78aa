"""Reads memory_data.csv, which quilmrun writes beside its JSON file at the end of a run."""

import csv
import math
from dataclasses import dataclass, field

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, read_regular

FILE_NAME = "memory_data.csv"
_LARGEST = 1 << 20  # bytes; a report has two lines
_TITLES = ["Model Load Time(ms)", "Read Model File Time(ms)", "Model Execute Time(ms)",
           "Input Size(KB)", "Task Buffer Size(KB)", "Output Size(KB)", "Mapper Temp Buffer(KB)",
           "Online Model Size(KB)", "Quilm Init Memory Size(KB)"]


@dataclass
class MemoryReport:
    """The report's columns by their titles, which end with the unit: sizes in KB, times in ms."""
    columns: dict[str, float] = field(default_factory=dict)


def read_memory_report(path: AnyPath) -> MemoryReport:
    """Raises Unreadable when the file is no memory report."""
    try:
        text = read_regular(path, largest=_LARGEST).decode("utf-8")
        titles, values = list(csv.reader(text.splitlines()))
        columns = dict(zip(titles, map(float, values), strict=True))
    except (ValueError, csv.Error) as error:
        raise _not_whole(path) from error
    if titles != _TITLES or not all(map(math.isfinite, columns.values())):
        raise _not_whole(path)
    return MemoryReport(columns)


def _not_whole(path: AnyPath) -> Unreadable:
    return Unreadable(f"{path} is not a memory report of quilmrun, or was cut short; "
                      "take the one that the run wrote beside its JSON file")
