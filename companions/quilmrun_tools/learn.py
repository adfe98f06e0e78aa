"""Learns what inputs a model wants, from quilmrun itself."""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Optional

from quilmrun_tools.cli import Unreadable
from quilmrun_tools.log import RunLog, parse_log


def find_quilmrun(named: Optional[str]) -> str:
    """The executable: as named, beside the companion, in the source tree's build, or on PATH."""
    if named is not None:
        found = shutil.which(named)
        if not found:
            raise Unreadable(f"{named} cannot be run: name the executable with --quilmrun")
        return str(Path(found).absolute())
    here = Path(sys.argv[0]).resolve().parent
    for candidate in (here / "quilmrun", here.parent / "build/release/quilmrun"):
        if candidate.is_file():
            return str(candidate)
    found = shutil.which("quilmrun")
    if not found:
        raise Unreadable("there is no quilmrun on PATH: name it with --quilmrun, or give "
                         "--model-log with the log of a run elsewhere")
    return found


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
