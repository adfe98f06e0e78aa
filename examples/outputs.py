"""Reads the input lists and the output files of quilmrun for the example viewers.

Only the Python standard library is needed, so that the viewers run on any PC.
"""

import array
import re
import sys
from pathlib import Path


class OutputError(Exception):
    """An output (or input) file is missing or is not what the model promises."""


def run_viewer(show):
    """Runs `show` on the output directory named on the command line.

    Exit status 0 if it returns true, 1 if not or if a file is missing.
    """
    if len(sys.argv) != 2:
        sys.exit("usage: show.py OUTDIR")
    try:
        sys.exit(0 if show(sys.argv[1]) else 1)
    except (OutputError, OSError) as error:
        sys.exit(f"show.py: {error}")


def read_list(list_path):
    """Returns the entries of an input list as (input name or "", path) pairs.

    The paths in the list are relative to the list file's own directory.
    """
    list_path = Path(list_path)
    entries = []
    for line in list_path.read_text().splitlines():
        if line.strip():
            name, _, path = line.strip().rpartition(":")
            entries.append((name, list_path.parent / path))
    return entries


def newest_output(outdir, run, name):
    """Returns the newest .bin file of output `name` in the run directory `outdir`/`run`.

    An output directory keeps the files of earlier tool runs; the microsecond stamp in the
    file name tells them apart.
    """
    directory = Path(outdir) / str(run)
    pattern = re.compile(re.escape(re.sub(r"[./\\]", "_", name)) + r"\.0\.(\d+)\.bin")
    matches = [pattern.fullmatch(path.name) for path in directory.glob("*.bin")]
    found = [(int(match.group(1)), match.string) for match in matches if match]
    if not found:
        raise OutputError(f"no output file of '{name}' in {directory}")
    return directory / max(found)[1]


def read_floats(path, count=None):
    """Returns the little-endian float32 values of a raw file, checking that there are `count`."""
    try:
        raw = Path(path).read_bytes()
    except OSError as error:
        raise OutputError(f"cannot read {path}: {error.strerror}") from error
    if len(raw) % 4 or (count is not None and len(raw) != 4 * count):
        wanted = "a multiple of 4" if count is None else 4 * count
        raise OutputError(f"{path} has {len(raw)} bytes instead of {wanted}")
    values = array.array("f", raw)
    if sys.byteorder == "big":
        values.byteswap()
    return values.tolist()


def read_output(outdir, run, name, count):
    """Returns the `count` values which run number `run` gave for the output `name`."""
    return read_floats(newest_output(outdir, run, name), count)
