"""How every companion speaks on the command line.

Exit statuses: 0 yes, 1 no (a verdict, or not all was done), 2 misuse or something unreadable.
Results go to standard output; errors, warnings and the progress bar to standard error.
"""

import argparse
import importlib.util
import json
import os
import signal
import sys
import tempfile
from pathlib import Path
from typing import Any, Iterable, Iterator, NoReturn, Optional, TypeVar

from quilmrun_tools import __version__

YES, NO, MISUSE = 0, 1, 2

Item = TypeVar("Item")


class Unreadable(Exception):
    """Something named by the user cannot be used; the text is one line that says what to do."""


def program() -> str:
    """The companion's own name, as in `quilmrun-inputs`."""
    return Path(sys.argv[0]).name


def fail(message: str) -> NoReturn:
    """Ends the companion with status 2 after one line on standard error."""
    print(f"{program()}: {message}", file=sys.stderr)
    raise SystemExit(MISUSE)


def warn(message: str) -> None:
    print(f"{program()}: warning: {message}", file=sys.stderr)


class Parser(argparse.ArgumentParser):
    """argparse with the conventions of the companions: one line for every misuse, no abbreviated
    options, `--version`, examples below the options."""

    def __init__(self, name: str, description: str, examples: str = "", **options: Any) -> None:
        super().__init__(prog=name, description=description, allow_abbrev=False,
                         epilog=f"examples:\n{examples}" if examples else None,
                         formatter_class=argparse.RawDescriptionHelpFormatter, **options)
        self.add_argument("--version", action="version", version=f"{name} {__version__}")

    def error(self, message: str) -> NoReturn:
        fail(f"{message}; see {self.prog} --help")

    def add_json(self) -> None:
        self.add_argument("--json", metavar="FILE",
                          help="also write the result as JSON; - is standard output, and nothing "
                               "else is written there")


def progress(items: Iterable[Item], total: Optional[int] = None, what: str = "",
             unit: str = "file") -> Iterator[Item]:
    """The same items, with a progress bar where standard error is a terminal."""
    if not sys.stderr.isatty():
        return iter(items)
    try:
        from tqdm import tqdm  # pylint: disable=import-outside-toplevel
    except ImportError:  # only the bar is missing
        return iter(items)
    return iter(tqdm(items, total=total, desc=what, unit=unit, leave=False, delay=0.5))


def check_own(path: str, marker: bytes) -> None:
    """Raises Unreadable when `path` must not be written.

    A file that exists is replaced only if it is empty or holds `marker` in its first 4096 bytes,
    which tells that a companion made it. Before long work this is asked ahead of write_own().
    """
    target = Path(path)
    try:
        if not target.parent.is_dir() or target.is_dir():
            raise Unreadable(f"cannot write {path}: name a file in a folder that exists")
        if target.is_file() and target.stat().st_size > 0:
            with open(target, "rb") as file:
                if marker not in file.read(4096):
                    raise Unreadable(f"{path} exists, and {program()} did not make it: "
                                     "name another file, or remove it")
    except OSError as error:
        raise Unreadable(f"cannot write {path}: {error.strerror}") from error


def write_own(path: str, content: bytes, marker: bytes) -> None:
    """Writes a file whole or not at all, where check_own() allows it."""
    check_own(path, marker)
    target = Path(path)
    try:
        if target.exists() and not target.is_file():  # a pipe or a device
            target.write_bytes(content)
        else:
            _replace(target, content)
    except OSError as error:
        raise Unreadable(f"cannot write {path}: {error.strerror}") from error


def _replace(target: Path, content: bytes) -> None:
    """Puts a new file in place of `target`, with the permissions of any new file."""
    handle, temporary = tempfile.mkstemp(prefix=f".{target.name[:100]}.", dir=target.parent)
    try:
        with open(handle, "wb") as file:
            file.write(content)
        umask = os.umask(0)
        os.umask(umask)
        os.chmod(temporary, 0o666 & ~umask)
        os.replace(temporary, target)
    except BaseException:
        os.unlink(temporary)
        raise


def write_json(path: str, value: dict) -> None:
    """Writes a companion's result, a dict with its "format"; "-" is standard output."""
    text = json.dumps(value, indent=1, default=_plain, allow_nan=False) + "\n"
    if path == "-":
        sys.stdout.write(text)
    else:
        write_own(path, text.encode(), json_marker(value["format"]))


def json_marker(companion: str) -> bytes:
    """What tells that a companion wrote a JSON file."""
    return f'"format": "{companion}"'.encode()


def check_json(path: Optional[str], companion: str) -> None:
    """check_own() for the option --json."""
    if path not in (None, "-"):
        check_own(str(path), json_marker(companion))


def _plain(value: Any) -> Any:
    """Paths as texts, numpy's numbers as Python's."""
    return value.item() if hasattr(value, "item") else str(value)


def read_json(path: str, expected: str) -> dict:
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


def _drop_output() -> None:
    """What standard output could not take would be an error once more at the end."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


# Debian's package of each Python package that a companion may lack.
_PACKAGES = {"numpy": "python3-numpy", "PIL": "python3-pil", "jinja2": "python3-jinja2"}


def run(module: str) -> NoReturn:
    """Runs a companion, `main()` of the named module, and ends the process with the status that it
    returns; every expected failure becomes one line. All that an entry point has to do."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))  # and tidy up
    for stream in (sys.stdout, sys.stderr):
        stream.reconfigure(errors="backslashreplace")  # file names may hold any bytes
    try:
        status = importlib.import_module(f"quilmrun_tools.{module}").main()
        sys.stdout.flush()
    except Unreadable as error:
        fail(str(error))
    except ModuleNotFoundError as error:
        missing = [package for name, package in _PACKAGES.items()
                   if importlib.util.find_spec(name) is None]
        fail(f"Python's {error.name} is missing: apt install {' '.join(missing) or error.name}")
    except MemoryError:
        fail("there is not enough memory")
    except BrokenPipeError:  # nobody reads on
        _drop_output()
        status = NO
    except OSError as error:
        _drop_output()
        fail(f"cannot use {error.filename}: {error.strerror}" if error.filename else
             f"cannot write: {error.strerror}")
    except KeyboardInterrupt:
        status = 130
    raise SystemExit(status)
