"""Learns what inputs a model wants, from quilmrun itself."""

import re
import subprocess
import tempfile
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.run_log import RunLog, parse_log
from quilmrun_tools.common.errors import Unreadable


def describe(model: str, settings: Optional[str], tool: str) -> RunLog:
    """The log of a run with an empty list. The settings file is used as a copy, because the tool
    writes its memory report beside it; without one, an empty JSON object is given."""
    with tempfile.TemporaryDirectory(prefix="quilmrun-inputs-") as name:
        folder = Path(name)
        (folder / "list.txt").touch()
        try:
            content = b"{}\n" if settings is None else Path(settings).read_bytes()
        except OSError as error:
            raise Unreadable(f"cannot read {settings}: {error.strerror}") from error
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
        # The runtime explains itself on standard error; the tool's first error says what failed.
        errors = re.findall(r"^\[ERROR\] (.*)", run.stdout, re.M)
        said = (run.stderr.strip().splitlines()[-1:] + errors + [str(error)])[0]
        raise Unreadable(f"{tool} cannot describe {model}: {said}") from error
