"""The calls that a record shows one by one, as a stream."""

from __future__ import annotations

import re
from typing import Iterator

from quilmrun_tools.artifacts.record import FORM
from quilmrun_tools.artifacts.record_version_1 import Event, read_whole
from quilmrun_tools.common.files import AnyPath, open_regular
from quilmrun_tools.common.json_files import decoded, parse_json

_EVENTS = b'"traceEvents":['


def read_events(path: AnyPath) -> Iterator[list[Event]]:
    """The events of a record: those of one inference together, each other one alone. Never more
    than these are in memory, except of version 1, whose events come all at once. A file that breaks
    off ends with its last whole inference."""
    with open_regular(path) as raw, open(raw.fileno(), "rb", closefd=False) as file:
        for line in file:
            if line.startswith(_EVENTS):
                break
        else:
            _, events, _ = read_whole(path, FORM)
            yield decoded(list[Event], events, path, FORM)
            return
        for line in file:
            if not re.search(rb"\}(,|\]\})\n$", line):
                return
            text = line.rstrip().removesuffix(b",").removesuffix(b"]}")
            yield decoded(list[Event], parse_json(b"[" + text + b"]", path, FORM), path, FORM)
