"""JSON files that companions write, each with its "format", the name of the companion, and the
version of that format."""

import json
from dataclasses import dataclass
from typing import Any, Mapping, Optional, TextIO, TypeVar

from quilmrun_tools.common.decoding import Wrong, decode, encode
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import AnyPath, read_regular
from quilmrun_tools.common.own_files import check_own, write_own
from quilmrun_tools.common.streams import one_line

Content = TypeVar("Content")


@dataclass(frozen=True)
class Format:
    """A kind of JSON file."""
    name: str  # of the companion that writes it, as "quilmrun-inputs"
    version: int  # the newest that is known; older ones are read, too, from `oldest` on
    remedy: str  # what to do about a file that cannot be used, as "prepare the inputs again"
    oldest: int = 1


def write_json(path: str, value: Mapping[str, object], out: TextIO) -> None:
    """Writes a companion's result, a dict with its "format"; "-" is the stream `out`."""
    text = json.dumps(encode(value), indent=1, allow_nan=False) + "\n"
    name = str(value["format"])
    if path == "-":
        out.write(text)
    else:
        write_own(path, text.encode(), json_marker(name), name)


def headed(form: Format, content: object) -> dict[str, object]:
    """A dataclass as it is written to a file: after its format and version."""
    return {"format": form.name, "version": form.version, **encode(content)}


def json_marker(companion: str) -> bytes:
    """What tells that a companion wrote a JSON file."""
    return f'"format": "{companion}"'.encode()


def check_json(path: Optional[str], companion: str) -> None:
    """check_own() for the option --json."""
    if path not in (None, "-"):
        check_own(str(path), json_marker(companion), companion)


def read_json(path: AnyPath, form: Format, kind: type[Content]) -> Content:
    """Reads a JSON file as the dataclass `kind`; raises Unreadable with one line when it is
    another file, damaged, or of a version that is not known."""
    value = parse_json(read_regular(path), path, form)
    if not isinstance(value, dict) or value.get("format") != form.name:
        raise Unreadable(f"{path} was not written by {form.name}")
    check_version(value, path, form)
    return decoded(kind, value, path, form)


def parse_json(content: bytes, path: AnyPath, form: Format) -> Any:
    """The value that a JSON text stands for."""
    try:
        return json.loads(content, parse_constant=_no_number)
    except RecursionError:
        raise Unreadable(f"{path} is nested too deeply: {form.remedy}") from None
    except ValueError as error:
        raise Unreadable(f"{path} is not JSON, or was cut short: {form.remedy}") from error


def check_version(header: Mapping[str, object], path: AnyPath, form: Format) -> None:
    """Raises Unreadable unless a file's version is one that is known here."""
    version = header.get("version")
    if type(version) is not int or version < 1:  # pylint: disable=unidiomatic-typecheck
        raise Unreadable(f"{path} names no version: {form.remedy}")
    if version > form.version:
        raise Unreadable(f"{path} has version {_number(version)}, and {form.version} is the newest "
                         f"known here: take the {form.name} and the other companions of one "
                         "release")
    if version < form.oldest:
        raise Unreadable(f"{path} has version {version}, and {form.oldest} is the oldest known "
                         f"here: {form.remedy}")


def decoded(kind: type[Content], value: object, path: AnyPath, form: Format) -> Content:
    """decode() for what was read from a file."""
    try:
        return decode(kind, value)
    except Wrong as wrong:
        raise Unreadable(f"{path} is damaged or not complete: {one_line(str(wrong))}; "
                         f"{form.remedy}") from wrong


def _no_number(text: str) -> float:
    raise ValueError(f"{text} is no number of JSON")


def _number(version: int) -> str:
    return str(version) if version < 10**9 else "a number of many digits"
