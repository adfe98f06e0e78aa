"""The command line of quilmrun-inputs."""

import argparse
import re
from typing import Optional, Union

from quilmrun_tools.common.parser import Parser
from quilmrun_tools.inputs import camera_formats
from quilmrun_tools.inputs import picture_shapes
from quilmrun_tools.inputs import pictures
from quilmrun_tools.inputs import preview
from quilmrun_tools.inputs import resizing

DESCRIPTION = """\
Makes raw input files and a list of them for quilmrun, of pictures (PNG, JPEG,
BMP, TIFF), arrays (.npy, .npz), raw frames or random values. A SOURCE is a
file, a folder (its pictures and arrays in the order of their names, or those
of the folders in it) or a text list (.txt, one path a line, relative to the
list). What the model wants is learned by running quilmrun with an empty list,
or from the log of such a run.

A pixel, 0 to 255 in each channel, becomes (pixel * SCALE - MEAN) / STD,
rounded and limited to what the input's type can hold. Arrays are taken as
they are, only their type is converted. Raw files (.nv12, .nv21, .yuv, .rgb,
.raw, .bin and others) whose size is that of one or several inputs are taken
byte for byte."""

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
  a model that takes what the camera gives, of photographs and of its frames:
    quilmrun-inputs -m model.onnx -o prepared --color nv12 photos
    ffmpeg -i video.mp4 -pix_fmt nv12 -s 640x480 -f rawvideo video.nv12
    quilmrun-inputs -m model.onnx -o prepared --color nv12 video.nv12
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
    """Several of them, with commas between."""
    return tuple(number(part) for part in text.split(","))


def _fill(text: str) -> tuple[int, ...]:
    values = numbers(text)
    if any(value not in range(256) for value in values):
        raise argparse.ArgumentTypeError("colours are whole numbers from 0 to 255")
    return tuple(int(value) for value in values)


def _range(text: str) -> Union[str, tuple[float, float]]:
    if text in camera_formats.RANGES:
        return text
    low, _, high = text.partition(",")
    try:
        values = number(low), number(high)
    except argparse.ArgumentTypeError:
        values = 1.0, 0.0
    if values[0] > values[1]:
        raise argparse.ArgumentTypeError(f"{text!r} is neither limited nor full, nor LOW,HIGH for "
                                         "random values")
    return values


def _count(text: str) -> int:
    if not text.isascii() or not text.isdigit() or not 0 < int(text) < 2**31:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number from 1 to {2**31 - 1}")
    return int(text)


def _size(text: str) -> tuple[int, int]:
    found = re.fullmatch(r"([1-9][0-9]{0,5})x([1-9][0-9]{0,5})", text)
    if not found:
        raise argparse.ArgumentTypeError(f"{text!r} is not WIDTHxHEIGHT, as 640x480")
    return int(found.group(1)), int(found.group(2))


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
    _add_pictures(result)
    _add_other(result)
    return result


def _add_pictures(result: Parser) -> None:
    picture = result.add_argument_group("pictures")
    picture.add_argument("--size", choices=resizing.SIZES, default="crop", help=(
        "crop: scaled until it covers the input, the middle is taken (default); fit: scaled until "
        "all of it fits in, with a border; stretch: scaled in each direction; pad: as fit, but "
        "smaller pictures keep their size"))
    picture.add_argument("--filter", choices=tuple(resizing.FILTERS), default="bilinear", help=(
        "how pixels are scaled, as by Pillow, with antialiasing: bilinear (default), bicubic, "
        "nearest, or area, the mean of all pixels"))
    picture.add_argument("--fill", type=_fill, default=(0,), metavar="V[,V,V]",
                         help="colour of the border, 0 to 255, channels as the model takes them; "
                              "red, green and blue for luma and chroma")
    picture.add_argument("--color", choices=picture_shapes.COLORS, default="",
                         help="channels in the order of the model; default: rgb, or gray for one")
    picture.add_argument("--layout", choices=picture_shapes.LAYOUTS, default="",
                         help="default: by the place of the 3 or 1 in the shape, nchw if both fit")
    picture.add_argument("--picture", type=_size, metavar="WxH",
                         help="size of the model's pictures, where the shape does not tell")
    picture.add_argument("--matrix", choices=tuple(camera_formats.MATRICES), default="bt601",
                         help="luma and chroma as this standard has them; default: bt601")
    for name, default, what in (("scale", 1.0, "factor for the pixel"),
                                ("mean", 0.0, "then taken away"), ("std", 1.0, "then divided by")):
        picture.add_argument(f"--{name}", type=numbers, default=(default,), metavar="V[,V,V]",
                             help=f"{what}, as 1/255 or one per channel; default: {default:g}")
    picture.add_argument("--preview", metavar="FILE.png",
                         help=f"a contact sheet of what the model sees, up to {preview.LIMIT} "
                              "pictures")
    picture.add_argument("--skip-unreadable", action="store_true",
                         help="leave out pictures that cannot be read")
    picture.add_argument("--largest", type=_count, default=512, metavar="MIB", help=(
        "memory that a decoded picture, or an array of an .npz, may take; a larger JPEG is decoded "
        "at a reduced size. default: 512"))


def _add_other(result: Parser) -> None:
    values = result.add_argument_group("random values")
    values.add_argument("--random", type=_count, default=0, metavar="N",
                        help="N inferences, for all inputs that have no sources")
    values.add_argument("--seed", type=int, default=0, metavar="S",
                        help="the same seed gives the same values; default: 0")
    values.add_argument("--range", type=_range, action="append", default=[], metavar="RANGE", help=(
        "LOW,HIGH of random values; default: 0 to 1 for floats, all values of 8-bit integers, 0 to "
        "255 of others. limited (default) or full: the range of luma and chroma"))
    written = result.add_argument_group("what is written")
    written.add_argument("-o", "--output", required=True, metavar="FOLDER", help=(
        "for the input files, list.txt and inputs.json: new, empty, or made by quilmrun-inputs, "
        "whose files alone are replaced"))
    written.add_argument("-b", "--batch", type=_count, default=1, metavar="B",
                         help="batches in each file; give quilmrun the same -b. default: 1")
    result.add_json()


def parse(arguments: list[str]) -> argparse.Namespace:
    """The options as they are understood."""
    errors = parser()
    options = errors.parse_args(arguments)
    _check(options, errors)
    return options


def bounds(options: argparse.Namespace) -> Optional[tuple[float, float]]:
    """The range of random values."""
    return next((one for one in reversed(options.range) if not isinstance(one, str)), None)


def picture_options(options: argparse.Namespace) -> pictures.Options:
    """What concerns pictures."""
    sample_range = next((one for one in reversed(options.range) if isinstance(one, str)), "limited")
    return pictures.Options(
        options.size, options.filter, options.color, options.layout, options.picture,
        options.matrix, sample_range, options.mean, options.scale, options.std, options.fill,
        options.largest << 20)


def _check(options: argparse.Namespace, errors: Parser) -> None:
    if bool(options.model) == bool(options.model_log):
        errors.error("give either --model or --model-log")
    if options.seed < 0:
        errors.error("--seed is 0 or more")
    if not (options.sources or options.input or options.random):
        errors.error("name pictures or arrays, or ask for --random N")
