"""Learns what inputs a model wants, from quilmrun itself."""

import re
import subprocess
import tempfile
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.run_log import RunLog, parse_log
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import read_regular
from quilmrun_tools.common.streams import Streams


def describe(model: str, settings: Optional[str], tool: str, streams: Streams) -> RunLog:
    """The log of a run with an empty list. The settings file is used as a copy, because the tool
    writes its memory report beside it; without one, an empty JSON object is given. When the run
    fails, what the runtime says on standard error is shown, all of it."""
    with tempfile.TemporaryDirectory(prefix="quilmrun-inputs-") as name:
        folder = Path(name)
        (folder / "list.txt").touch()
        content = b"{}\n" if settings is None else read_regular(settings)
        (folder / "quilm.json").write_bytes(content)
        try:
            run = subprocess.run(
                [tool, "-m", model, "-i", folder / "list.txt", "-j", folder / "quilm.json"],
                check=False, capture_output=True, encoding="utf-8", errors="surrogateescape")
        except OSError as error:
            raise Unreadable(f"cannot run {tool}: {error.strerror}") from error
    try:
        return parse_log(run.stdout, tool)
    except Unreadable as error:
        for line in run.stderr.splitlines():
            print(line, file=streams.err)
        errors = re.findall(r"^\[ERROR\] (.*)", run.stdout, re.M)
        said = (errors or [str(error)])[0]
        raise Unreadable(f"{tool} cannot describe {model}: {said}") from error
