"""The command line of quilmrun-accuracy."""

import argparse
import math
from decimal import Decimal, InvalidOperation

from quilmrun_tools.accuracy import boxes
from quilmrun_tools.common.parser import Parser

DESCRIPTION = """\
Tells how well a run answers its task. OUT is the directory that quilmrun was
given with -o.

Classification: scores against labels. FILE has lines KEY,LABEL (or a tab or
blanks between); KEY is a picture's number in the run, from 0, or its path or as
much of the path's end as tells it apart, LABEL a class by its index or, with
--classes, by its name. Equal scores count against the model.

Detection: boxes against annotations in COCO's JSON format, by average
precision and recall as COCO's evaluator defines them. Boxes are carried back
to the original pictures by inputs.json; without it, run k is the k-th image."""

EXAMPLES = """\
  quilmrun-accuracy out --labels labels.csv --classes names.txt --min-top1 70%
  pictures in folders by class; a quantised model against the original:
    quilmrun-accuracy int8 --labels-from-folders --against float
  a detector with rows of class, score and corners, whose class 0 is no object:
    quilmrun-accuracy out --annotations coco.json --boxes boxes \\
        --box-format class,score,x1,y1,x2,y2 --category-ids --min-ap 0.35
  one with an output for each part:
    quilmrun-accuracy out --annotations coco.json --boxes boxes --scores scores \\
        --classes-output classes --count count --box-format y1,x1,y2,x2
exit status: 0 judged, 1 below --min-top1 or --min-ap, 2 nothing was judged"""


def _share(text: str) -> float:
    """0.7 or 70%."""
    try:
        # Decimal, because 99.9 / 100 in floats is more than 0.999.
        value = Decimal(text.removesuffix("%")) / (100 if text.endswith("%") else 1)
    except InvalidOperation:
        value = Decimal("NaN")
    if not 0 <= value <= 1:
        raise argparse.ArgumentTypeError(f"{text!r} is no share from 0 to 1, as 0.7 or 70%")
    return float(value)


def _score(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        value = math.nan
    if not math.isfinite(value):
        raise argparse.ArgumentTypeError(f"{text!r} is no number")
    return value


def _typed(text: str) -> tuple[str, str]:
    name, _, kind = text.rpartition("=")
    if not name or kind not in ("float", "half", "int32"):
        raise argparse.ArgumentTypeError(f"{text!r} is not NAME=half, NAME=int32 or NAME=float")
    return name, kind


def parser() -> Parser:
    """The command line."""
    result = Parser("quilmrun-accuracy", DESCRIPTION, EXAMPLES, usage=(
        "quilmrun-accuracy OUT (--labels FILE | --labels-from-folders | --annotations FILE --boxes "
        "NAME) [option ...]"))
    result.add_argument("output_folder", metavar="OUT")
    _add_classification(result)
    _add_detection(result)
    files = result.add_argument_group("files")
    files.add_argument("--log", help="what quilmrun printed for OUT, or its record.json; default: "
                                     "log.txt in OUT or above it, record.json in OUT")
    files.add_argument("--inputs", metavar="FILE",
                       help="inputs.json; default: the one beside the log's input files")
    files.add_argument("--type", type=_typed, action="append", default=[], metavar="NAME=TYPE",
                       help="half, int32 or float, where the log does not tell")
    files.add_argument("--newest", action="store_true",
                       help="of several runs in OUT, judge the newest by its time stamps")
    result.add_json()
    return result


def _add_classification(result: Parser) -> None:
    group = result.add_argument_group("classification")
    group.add_argument("--labels", metavar="FILE", help="the class of every picture, KEY,LABEL")
    group.add_argument("--labels-from-folders", action="store_true",
                       help="the class is the folder that a picture lies in")
    group.add_argument("--classes", metavar="FILE",
                       help="names, one a line, in the order of the scores")
    group.add_argument("--output", metavar="NAME",
                       help="the output of scores, where there are several")
    group.add_argument("--against", metavar="OTHER",
                       help="the output directory of an earlier run of the same pictures")
    group.add_argument("--against-log", metavar="LOG", help="the same as --log for OTHER")
    group.add_argument("--min-top1", type=_share, metavar="SHARE",
                       help="least share of right pictures that passes, as 0.7 or 70%%")


def _add_detection(result: Parser) -> None:
    group = result.add_argument_group("detection")
    group.add_argument("--annotations", metavar="FILE", help="objects, in COCO's JSON format")
    group.add_argument("--boxes", metavar="NAME", help="the output of boxes")
    group.add_argument("--box-format", metavar="COLUMNS", help=(
        f"what a row of it holds, of {','.join(boxes.FIELDS)} and - for a column to skip; default: "
        f"{boxes.WHOLE_ROWS}, with --scores {boxes.BOX_ROWS}"))
    group.add_argument("--scores", metavar="NAME", help="an output with the score of every box")
    group.add_argument("--classes-output", metavar="NAME",
                       help="an output with the class of every box")
    group.add_argument("--count", metavar="NAME", help="an output with the number of valid boxes")
    group.add_argument("--coordinates", choices=("pixels", "shares"), help=(
        "of the input; default: shares (0 to 1) when no box is beyond these"))
    group.add_argument("--category-ids", action="store_true", help=(
        "a class value is a category's id; default: its index in the annotations"))
    group.add_argument("--min-score", type=_score, default=0.0, metavar="S",
                       help="rows whose score is not above are no detections; default: 0")
    group.add_argument("--min-ap", type=_share, metavar="AP", help="least AP that passes")


def parse(arguments: list[str]) -> argparse.Namespace:
    """The options, of one task."""
    errors = parser()
    options = errors.parse_args(arguments)
    tasks = [options.labels, options.labels_from_folders, options.annotations]
    if sum(map(bool, tasks)) != 1:
        errors.error("give one of --labels, --labels-from-folders and --annotations")
    if bool(options.annotations) != bool(options.boxes):
        errors.error("--annotations and --boxes belong together")
    detection = ("box_format", "scores", "classes_output", "count", "coordinates", "category_ids",
                 "min_score", "min_ap")
    classification = ("classes", "output", "against", "against_log", "min_top1")
    for name in classification if options.annotations else detection:
        if getattr(options, name) != errors.get_default(name):
            errors.error(f"--{name.replace('_', '-')} does not belong to " + (
                "--annotations" if options.annotations else "labels"))
    return options
