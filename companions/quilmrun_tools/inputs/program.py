"""quilmrun-inputs: pictures and arrays become input files."""

import argparse
import datetime

from quilmrun_tools.artifacts import prepared_inputs
from quilmrun_tools.artifacts.run_log import RunLog, Tensor, read_log
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.executable import find_quilmrun
from quilmrun_tools.common.json_files import check_json, write_json
from quilmrun_tools.common.own_files import check_own, write_own
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.inputs import camera_formats
from quilmrun_tools.inputs import command_line
from quilmrun_tools.inputs import describe_model
from quilmrun_tools.inputs import prepare
from quilmrun_tools.inputs import preview
from quilmrun_tools.inputs import sources
from quilmrun_tools.inputs import summary
from quilmrun_tools.inputs.find_files import find_files
from quilmrun_tools.inputs.target_folder import TargetFolder


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion."""
    options = command_line.parse(arguments)
    check_json(options.json, prepared_inputs.FORMAT)
    if options.preview:
        check_own(options.preview, preview.MARKER, streams.program)
    log = read_log(options.model_log) if options.model_log else describe_model.describe(
        options.model, options.quilm_json, find_quilmrun(options.quilmrun), streams)
    inputs = _inputs(log, options.without)
    columns = _columns(inputs, options, streams)
    prepare.check(columns, options.batch)
    head = _description(log, inputs, columns, options, [streams.program, *arguments])
    with TargetFolder(options.output) as folder:
        result = prepare.write(columns, head, folder.waiting, streams)
        _report_skipped(result, options.skip_unreadable, streams)
        folder.commit()
    if result.shown:
        sheet = preview.contact_sheet(result.shown, f"{len(result.shown)} of "
                                      f"{result.inferences} inferences; {summary.says(columns)}")
        write_own(options.preview, sheet, preview.MARKER, streams.program)
    elif options.preview:
        streams.warn("nothing to show in a preview: give --color for raw data")
    if options.json:
        manifest = prepared_inputs.read_manifest(options.output)
        write_json(options.json, {**manifest.to_dict(), "skipped": result.skipped,
                                  "out_of_range": result.out_of_range}, streams.out)
    if options.json != "-":
        summary.print_summary(columns, options, log, result, streams)
    return Status.YES


def _inputs(log: RunLog, without: list[str]) -> list[Tensor]:
    """The inputs that need files."""
    names = [tensor.name for tensor in log.data_inputs]
    for name in without:
        if name not in names:
            raise Unreadable(f"the model has no input {name}: it has {', '.join(names)}")
    inputs = [tensor for tensor in log.data_inputs if tensor.name not in without]
    if not inputs:
        raise Unreadable("the model takes no data inputs")
    for tensor in inputs:
        if any(dim <= 0 for dim in tensor.dims):
            raise Unreadable(f"{tensor.name} takes {list(tensor.dims)}: compile or export the model"
                             " with fixed dimensions")
    return inputs


def _columns(inputs: list[Tensor], options: argparse.Namespace, streams: Streams
             ) -> list[prepare.Column]:
    """What every input is made of."""
    words = _words(inputs, options)
    taken = command_line.picture_options(options)
    columns = []
    for index, tensor in enumerate(inputs):
        if words[tensor.name]:
            finder = sources.Finder(tensor, taken, preview.LIMIT if options.preview else 0)
            items = finder.find(find_files(words[tensor.name]))
            taken_as = next(filter(None, map(sources.preparation_of, items)), None)
            if taken_as and not options.color and taken_as.shape.color == "gray":
                _hint(tensor, streams)
        elif options.random:
            items = sources.random_items(tensor, options.random, (options.seed, index),
                                         command_line.bounds(options))
        else:
            raise Unreadable(f"{tensor.name} has no source: give --input {tensor.name}=SOURCE, or "
                             f"--random N; --without {tensor.name} if quilmrun gets it with -r")
        if not items:
            raise Unreadable(f"the sources of {tensor.name} hold nothing")
        columns.append(prepare.Column(tensor, items))
    return columns


def _hint(tensor: Tensor, streams: Streams) -> None:
    hint = camera_formats.guess_420(tensor)
    if hint:
        streams.warn(f"{tensor.name} is taken for gray, but {hint}")


def _words(inputs: list[Tensor], options: argparse.Namespace) -> dict[str, list[str]]:
    """{input: sources as the user named them}"""
    names = [tensor.name for tensor in inputs]
    words: dict[str, list[str]] = {name: [] for name in names}
    if options.sources and len(inputs) > 1:
        raise Unreadable(f"the model has {len(inputs)} data inputs: give each its sources with "
                         f"--input, as in --input {names[0]}={options.sources[0]} ({names[0]} of "
                         f"{', '.join(names)})")
    words[names[0]] += options.sources
    for text in options.input:
        # The longest name that fits, because names may hold an equals sign too.
        fitting = [name for name in names if text.startswith(f"{name}=")]
        if not fitting:
            raise Unreadable(f"--input {text}: write NAME=SOURCE with one of {', '.join(names)}")
        name = max(fitting, key=len)
        words[name].append(text[len(name) + 1:])
    return words


def _report_skipped(result: prepare.Result, may_skip: bool, streams: Streams) -> None:
    for reason in result.skipped:
        streams.complain(f"cannot read {reason.removeprefix('cannot read ')}")
    if result.skipped and not may_skip:
        raise Unreadable(f"{len(result.skipped)} unreadable: repair or remove them, or leave them "
                         "out with --skip-unreadable; nothing was written")
    if not result.inferences:
        raise Unreadable("nothing can be read, so nothing was written")


def _description(log: RunLog, inputs: list[Tensor], columns: list[prepare.Column],
                 options: argparse.Namespace, command: list[str]) -> prepared_inputs.Manifest:
    """All of inputs.json but the files."""
    now = datetime.datetime.now(datetime.timezone.utc)
    shapes = {column.tensor.name: prepared_inputs.PictureShape(
        shape.width, shape.height, shape.color, shape.layout)
              for column in columns if column.preparation
              for shape in [column.preparation.shape]}
    return prepared_inputs.Manifest(
        now.strftime("%Y-%m-%dT%H:%M:%SZ"), command, vars(options),
        prepared_inputs.PreparedModel(
            options.model or log.model_path, tuple(inputs), shapes),
        prepare.LIST_NAME, options.batch)
