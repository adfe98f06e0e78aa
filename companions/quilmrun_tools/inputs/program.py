"""quilmrun-inputs: pictures and arrays become input files."""

import argparse
import datetime
import shlex
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts import prepared_inputs
from quilmrun_tools.artifacts.run_log import RunLog, Tensor, read_log
from quilmrun_tools.common.executable import find_quilmrun
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.json_files import check_json, write_json
from quilmrun_tools.common.own_files import check_own, write_own
from quilmrun_tools.common.parser import Parser
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.inputs import describe_model
from quilmrun_tools.inputs import pictures
from quilmrun_tools.inputs import prepare
from quilmrun_tools.inputs import preview
from quilmrun_tools.inputs import sources
from quilmrun_tools.inputs.target_folder import TargetFolder

DESCRIPTION = """\
Makes raw input files and a list of them for quilmrun, of pictures (PNG, JPEG,
BMP, TIFF), arrays (.npy, .npz) or random values. A SOURCE is a file, a folder
(its pictures and arrays in the order of their names) or a text list (.txt, one
path a line, relative to the list). What the model wants is learned by running
quilmrun with an empty list, or from the log of such a run.

A pixel, 0 to 255 in each channel, becomes (pixel * SCALE - MEAN) / STD,
rounded and limited to what the input's type can hold. Arrays are taken as
they are, only their type is converted."""

EXAMPLES = """\
  photographs for a classifier trained with 0..1, ImageNet's mean and deviation:
    quilmrun-inputs -m model.onnx -o prepared --scale 1/255 \\
        --mean 0.485,0.456,0.406 --std 0.229,0.224,0.225 photos
  the same in other words, for a model that wants blue first:
    ... --color bgr --mean 103.5,116.3,123.7 --std 57.4,57.1,58.4 photos
  a model of signed bytes, for a board that is elsewhere:
    quilmrun-inputs --model-log log.txt -o prepared --mean 128 photos/*.jpg
  a detector that wants whole pictures with a grey border:
    quilmrun-inputs -m model.onnx -o prepared --size fit --fill 114 photos
  two inputs, one of them an array:
    quilmrun-inputs -m model.onnx -o prepared --input image=photos --input box=box.npy
  20 inferences of random values:
    quilmrun-inputs -m model.onnx -o prepared --random 20 --seed 1
then: quilmrun -m model.onnx -i prepared/list.txt -j quilm.json -o out"""


def number(text: str) -> float:
    """A decimal number or a fraction such as 1/255."""
    above, _, below = text.partition("/")
    try:
        value = float(above) / float(below or 1)
    except (ValueError, ZeroDivisionError):
        raise argparse.ArgumentTypeError(f"{text!r} is neither a number nor a fraction") from None
    if value - value != 0:
        raise argparse.ArgumentTypeError(f"{text!r} is not finite")
    return value


def numbers(text: str) -> tuple[float, ...]:
    return tuple(number(part) for part in text.split(","))


def _fill(text: str) -> tuple[int, ...]:
    values = numbers(text)
    if any(value not in range(256) for value in values):
        raise argparse.ArgumentTypeError("colours are whole numbers from 0 to 255")
    return tuple(int(value) for value in values)


def _range(text: str) -> tuple[float, float]:
    values = numbers(text)
    if len(values) != 2 or values[0] > values[1]:
        raise argparse.ArgumentTypeError(f"{text!r} is not LOW,HIGH")
    return values[0], values[1]


def _count(text: str) -> int:
    if not text.isascii() or not text.isdigit() or not 0 < int(text) < 2**31:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number from 1 to {2**31 - 1}")
    return int(text)


def parser() -> Parser:
    """The command line."""
    result = Parser("quilmrun-inputs", DESCRIPTION, EXAMPLES, usage=(
        "quilmrun-inputs (-m MODEL [-j JSON] | --model-log LOG) -o FOLDER [option ...] SOURCE ..."))
    result.add_argument("sources", nargs="*", metavar="SOURCE",
                        help="what a model's only data input is made of")
    model = result.add_argument_group("the model")
    model.add_argument("-m", "--model", help="ask quilmrun about this model")
    model.add_argument("-j", "--quilm-json", metavar="JSON",
                       help="the runtime's JSON configuration for that; default: {}")
    model.add_argument("--quilmrun", metavar="PATH",
                       help="the executable; default: the one beside this companion, or on PATH")
    model.add_argument("--model-log", metavar="LOG",
                       help="take the model's description from what quilmrun printed elsewhere")
    model.add_argument("--input", action="append", default=[], metavar="NAME=SOURCE",
                       help="a source for one of several data inputs; may be repeated, also for "
                            "one input. A single picture or batch serves all inferences")
    model.add_argument("--without", action="append", default=[], metavar="NAME",
                       help="an input that needs no files, because quilmrun gets it with -r")
    picture = result.add_argument_group("pictures")
    picture.add_argument("--size", choices=pictures.SIZES, default="crop", help=(
        "crop: scaled until it covers the input, the middle is taken (default); fit: scaled until "
        "all of it fits in, with a border; stretch: scaled in each direction; pad: as fit, but "
        "smaller pictures keep their size"))
    picture.add_argument("--fill", type=_fill, default=(0,), metavar="V[,V,V]",
                         help="colour of the border, 0 to 255, channels as the model takes them")
    picture.add_argument("--color", choices=tuple(pictures.COLORS), default="",
                         help="channels in the order of the model; default: rgb, or gray for one")
    picture.add_argument("--layout", choices=("nchw", "nhwc"), default="",
                         help="default: by the place of the 3 or 1 in the shape, nchw if both fit")
    for name, default, what in (("scale", 1.0, "factor for the pixel"),
                                ("mean", 0.0, "then taken away"), ("std", 1.0, "then divided by")):
        picture.add_argument(f"--{name}", type=numbers, default=(default,), metavar="V[,V,V]",
                             help=f"{what}, as 1/255 or one per channel; default: {default:g}")
    picture.add_argument("--preview", metavar="FILE.png",
                         help=f"a contact sheet of what the model sees, up to {preview.LIMIT} "
                              "pictures")
    picture.add_argument("--skip-unreadable", action="store_true",
                         help="leave out pictures that cannot be read")
    _add_other(result)
    return result


def _add_other(result: Parser) -> None:
    values = result.add_argument_group("random values")
    values.add_argument("--random", type=_count, default=0, metavar="N",
                        help="N inferences, for all inputs that have no sources")
    values.add_argument("--seed", type=int, default=0, metavar="S",
                        help="the same seed gives the same values; default: 0")
    values.add_argument("--range", type=_range, metavar="LOW,HIGH", help=(
        "default: 0 to 1 for floats, all values of 8-bit integers, 0 to 255 of others"))
    written = result.add_argument_group("what is written")
    written.add_argument("-o", "--output", required=True, metavar="FOLDER", help=(
        "for the input files, list.txt and inputs.json: new, empty, or made by quilmrun-inputs, "
        "whose files alone are replaced"))
    written.add_argument("-b", "--batch", type=_count, default=1, metavar="B",
                         help="batches in each file; give quilmrun the same -b. default: 1")
    result.add_json()


def _check(options: argparse.Namespace, errors: Parser) -> None:
    if bool(options.model) == bool(options.model_log):
        errors.error("give either --model or --model-log")
    if options.seed < 0:
        errors.error("--seed is 0 or more")
    if not (options.sources or options.input or options.random):
        errors.error("name pictures or arrays, or ask for --random N")


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion."""
    commands = parser()
    options = commands.parse_args(arguments)
    _check(options, commands)
    check_json(options.json, prepared_inputs.FORMAT)
    if options.preview:
        check_own(options.preview, preview.MARKER, streams.program)
    log = read_log(options.model_log) if options.model_log else describe_model.describe(
        options.model, options.quilm_json, find_quilmrun(options.quilmrun))
    inputs = _inputs(log, options.without)
    columns = _columns(inputs, options)
    prepare.check(columns, options.batch)
    with TargetFolder(options.output) as folder:
        result = prepare.write(columns, options.batch, folder.waiting, streams)
        _report_skipped(result, options.skip_unreadable, streams)
        description = _description(log, inputs, options, result, [streams.program, *arguments])
        folder.commit(description)
    if result.shown:
        sheet = preview.contact_sheet(result.shown, f"{len(result.shown)} of "
                                      f"{result.inferences} inferences; {_says(columns)}")
        write_own(options.preview, sheet, preview.MARKER, streams.program)
    if options.json:
        write_json(options.json, {**description.to_dict(), "skipped": result.skipped},
                   streams.out)
    if options.json != "-":
        _print_summary(columns, options, log, result, streams)
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


def _columns(inputs: list[Tensor], options: argparse.Namespace) -> list[prepare.Column]:
    """What every input is made of."""
    words = _words(inputs, options)
    taken = pictures.Options(options.size, options.color, options.layout, options.mean,
                             options.scale, options.std, options.fill)
    columns = []
    for index, tensor in enumerate(inputs):
        if words[tensor.name]:
            items = sources.find_items(words[tensor.name], tensor, taken,
                                       preview.LIMIT if options.preview else 0)
        elif options.random:
            items = sources.random_items(tensor, options.random, (options.seed, index),
                                         options.range)
        else:
            raise Unreadable(f"{tensor.name} has no source: give --input {tensor.name}=SOURCE, or "
                             f"--random N; --without {tensor.name} if quilmrun gets it with -r")
        if not items:
            raise Unreadable(f"the sources of {tensor.name} hold nothing")
        columns.append(prepare.Column(tensor, items))
    return columns


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
        streams.complain(f"cannot read {reason}")
    if result.skipped and not may_skip:
        raise Unreadable(f"{len(result.skipped)} unreadable: repair or remove them, or leave them "
                         "out with --skip-unreadable; nothing was written")
    if not result.inferences:
        raise Unreadable("nothing can be read, so nothing was written")


def _description(log: RunLog, inputs: list[Tensor], options: argparse.Namespace,
                 result: prepare.Result, command: list[str]) -> prepared_inputs.Manifest:
    now = datetime.datetime.now(datetime.timezone.utc)
    return prepared_inputs.Manifest(
        now.strftime("%Y-%m-%dT%H:%M:%SZ"), command, vars(options),
        prepared_inputs.PreparedModel(options.model or log.model_path, tuple(inputs)),
        prepare.LIST_NAME, options.batch, result.files)


def _says(columns: list[prepare.Column]) -> str:
    return "; ".join(_says_of(column) for column in columns)


def _says_of(column: prepare.Column) -> str:
    """One input, as in: image: 1 x 3 x 224 x 224 float, rgb nchw, values -2.118 to 2.64"""
    tensor = column.tensor
    text = f"{tensor.name}: {' x '.join(map(str, tensor.dims))} {tensor.type_name}"
    taken: Optional[pictures.Preparation] = getattr(column.items[0], "preparation", None)
    if taken:
        low, high = (float(value) for value in (taken.table.min(), taken.table.max()))
        text += f", {taken.color} {taken.shape.layout}, values {low:.4g} to {high:.4g}"
        if taken.saturated_values:
            text += (f" ({taken.saturated_values / taken.table.size:.0%} of the pixel values are "
                     "beyond the type's range: see --scale, --mean, --std)")
    return text


def _print_summary(columns: list[prepare.Column], options: argparse.Namespace, log: RunLog,
                   result: prepare.Result, streams: Streams) -> None:
    folder = Path(options.output)
    batches = "" if options.batch == 1 else f" of {options.batch} batches"
    if result.last_batch != options.batch:
        batches += f", {result.last_batch} in the last"
    skipped = f", {len(result.skipped)} left out" if result.skipped else ""
    many = "inference" if result.inferences == 1 else "inferences"
    streams.say(f"{result.inferences} {many}{batches}{skipped} in {folder / prepare.LIST_NAME}")
    for column in columns:
        streams.say(_says_of(column))
    batch = [] if options.batch == 1 else ["-b", str(options.batch)]
    streams.say("next: " + shlex.join([
        "quilmrun", "-m", options.model or log.model_path, "-i", str(folder / prepare.LIST_NAME),
        "-j", options.quilm_json or "JSON", "-o", "OUT", *batch]))
