"""What quilmrun-inputs says of what it prepared."""

import argparse
import shlex
from pathlib import Path

from quilmrun_tools.artifacts.run_log import RunLog
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.inputs import prepare


def says(columns: list[prepare.Column]) -> str:
    """All inputs in one line."""
    return "; ".join(_says_of(column) for column in columns)


def _says_of(column: prepare.Column) -> str:
    """One input, as in: image: 1 x 3 x 224 x 224 float, rgb nchw, values -2.118 to 2.64"""
    tensor = column.tensor
    text = f"{tensor.name}: {' x '.join(map(str, tensor.dims))} {tensor.type_name}"
    taken = column.preparation
    if taken:
        low, high = (float(value) for value in (taken.table.min(), taken.table.max()))
        text += f", {taken.shape}, values {low:.4g} to {high:.4g}"
        if taken.saturated_values:
            text += (f" ({taken.saturated_values / taken.table.size:.0%} of the pixel values are "
                     "beyond the type's range: see --scale, --mean, --std)")
    return text


def _clipped(column: prepare.Column, result: prepare.Result) -> str:
    """How many values of arrays became the ends of the type's range."""
    name = column.tensor.name
    if not result.out_of_range.get(name):
        return ""
    return (f"; {result.out_of_range[name]} of {result.values[name]} values were beyond the range "
            f"of {column.tensor.type_name} and became its ends")


def print_summary(columns: list[prepare.Column], options: argparse.Namespace, log: RunLog,
                  result: prepare.Result, streams: Streams) -> None:
    """What was written, what each input takes, and the command that comes next."""
    folder = Path(options.output)
    batches = "" if options.batch == 1 else f" of {options.batch} batches"
    if result.last_batch != options.batch:
        batches += f", {result.last_batch} in the last"
    skipped = f", {len(result.skipped)} left out" if result.skipped else ""
    many = "inference" if result.inferences == 1 else "inferences"
    streams.say(f"{result.inferences} {many}{batches}{skipped} in {folder / prepare.LIST_NAME}")
    for column in columns:
        streams.say(_says_of(column) + _clipped(column, result))
    batch = [] if options.batch == 1 else ["-b", str(options.batch)]
    streams.say("next: " + shlex.join([
        "quilmrun", "-m", options.model or log.model_path, "-i", str(folder / prepare.LIST_NAME),
        "-j", options.quilm_json or "JSON", "-o", "OUT", *batch]))
