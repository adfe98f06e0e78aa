"""JSON files that companions write, each with its "format", the name of the companion."""

import json
from pathlib import Path
from typing import Any, Optional, TextIO

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.own_files import check_own, write_own


def write_json(path: str, value: dict[str, Any], out: TextIO) -> None:
    """Writes a companion's result, a dict with its "format"; "-" is the stream `out`."""
    text = json.dumps(value, indent=1, default=_plain, allow_nan=False) + "\n"
    if path == "-":
        out.write(text)
    else:
        write_own(path, text.encode(), json_marker(value["format"]), value["format"])


def json_marker(companion: str) -> bytes:
    """What tells that a companion wrote a JSON file."""
    return f'"format": "{companion}"'.encode()


def check_json(path: Optional[str], companion: str) -> None:
    """check_own() for the option --json."""
    if path not in (None, "-"):
        check_own(str(path), json_marker(companion), companion)


def _plain(value: Any) -> Any:
    """Paths as texts, numpy's numbers as Python's."""
    return value.item() if hasattr(value, "item") else str(value)


def read_json(path: str, expected: str) -> dict[str, Any]:
    """A JSON file that one of the companions wrote, such as "quilmrun-inputs"."""
    try:
        value = json.loads(Path(path).read_bytes())
    except OSError as error:
        raise Unreadable(f"cannot read {path}: {error.strerror}") from error
    except ValueError as error:
        raise Unreadable(f"{path} is not JSON, or was cut short: write it again with "
                         f"{expected}") from error
    if not isinstance(value, dict) or value.get("format") != expected:
        raise Unreadable(f"{path} was not written by {expected}")
    return value
