"""Where the tool itself is."""

import shutil
from pathlib import Path
from typing import Optional

from quilmrun_tools.common.errors import Unreadable

# The folder companions/ of the source tree, or share/quilmrun/companions where it is installed.
_COMPANIONS = Path(__file__).resolve().parents[2]


def find_quilmrun(named: Optional[str]) -> str:
    """The executable: as named, in the source tree's build, beside the installed companions, or on
    PATH."""
    if named is not None:
        found = shutil.which(named)
        if not found:
            raise Unreadable(f"{named} cannot be run: name the executable with --quilmrun")
        return str(Path(found).absolute())
    for candidate in (_COMPANIONS.parent / "build/release/quilmrun",
                      *(prefix / "bin/quilmrun" for prefix in _COMPANIONS.parents[2:3])):
        if candidate.is_file():
            return str(candidate)
    found = shutil.which("quilmrun")
    if not found:
        raise Unreadable("there is no quilmrun on PATH: name it with --quilmrun, or give "
                         "--model-log with the log of a run elsewhere")
    return found
