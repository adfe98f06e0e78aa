"""quilmrun-compare: are these outputs right?"""

import argparse
import math
from pathlib import Path
from typing import Callable, Union

import numpy as np

from quilmrun_tools.artifacts.comparison import (FORMAT, Comparison, LeftOut, LeftOutOfBoth,
                                                 Limits)
from quilmrun_tools.artifacts.output_folder import Key, NoOutputs
from quilmrun_tools.artifacts.run_log import name_in_files
from quilmrun_tools.artifacts.run_outputs import RunOutputs, Sources, read_run_outputs
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.json_files import check_json, write_json
from quilmrun_tools.common.parser import Parser
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.compare.collect import MOST_FAILURES, Circumstances, Collector
from quilmrun_tools.compare.comparer import Comparer, OutputFacts, score_length
from quilmrun_tools.compare.frames import find_cuts, notes_of
from quilmrun_tools.compare.same_inputs import find_difference, pair_by_input
from quilmrun_tools.compare.sides import (ArrayOutputs, Reference, pair_keys, pairs_of, read_arrays,
                                          read_single_arrays, same_numbers)
from quilmrun_tools.compare.table import print_comparison

ATOL, RTOL = 1e-5, 1e-5
WORST = 10  # runs that are listed

DESCRIPTION = """\
Compares the outputs of two runs of quilmrun, as those of a board and of the
PC. OUT is what -o named; REFERENCE another such directory, a folder of NAME.npy
(the first dimension is the run) or of RUN/NAME.npy, or one .npy file for a
model's only output. A directory that holds the outputs of several runs is
refused where it is not certain which of them the log or the record is about.

Without limits, every value has to be within 1e-5 + 1e-5 * |reference|, as with
numpy.allclose, NaN being equal to NaN. Limits replace this: --atol or --rtol
keep the other's 1e-5, --cosine and --top1 alone do without both.

Types (half floats and 32-bit integers are stored as patterns of bits) and
shapes come from the run's log when it is named, or log.txt in the directory
or above it, names of pictures from inputs.json beside the log's input files.
Without a log, record.json of quilmrun-record tells the types. Where both
sides' inputs.json are known, their inputs have to be the same."""

EXAMPLES = """\
  quilmrun-compare board pc
  a board that computes in half floats:
    quilmrun-compare board pc --rtol 1e-2 --atol 1e-3
  a quantised model against the original, by ranking and direction:
    quilmrun-compare int8 float --by-order --cosine 0.98 --top1 95%
  values that another program saved with numpy.save:
    quilmrun-compare out reference.npy --type prob=half --json comparison.json
exit status: 0 within the limits, 1 not, 2 nothing was compared"""


def _limit(name: str, largest: float) -> Callable[[str], float]:
    def parse(value: str) -> float:
        try:
            number = float(value[:-1]) / 100 if value.endswith("%") else float(value)
        except ValueError:
            number = math.nan
        if not 0 <= number <= largest or number == math.inf:
            raise argparse.ArgumentTypeError(f"{value!r} is no {name}")
        return number
    return parse


def _typed(value: str) -> tuple[str, str]:
    name, _, kind = value.rpartition("=")
    if not name or kind not in ("float", "half", "int32"):
        raise argparse.ArgumentTypeError(f"{value!r} is not NAME=half, NAME=int32 or NAME=float")
    return name_in_files(name), kind


def parser() -> Parser:
    """The command line."""
    result = Parser("quilmrun-compare", DESCRIPTION, EXAMPLES,
                        usage="quilmrun-compare OUT REFERENCE [option ...]")
    result.add_argument("output", metavar="OUT")
    result.add_argument("reference", metavar="REFERENCE")
    limits = result.add_argument_group("limits")
    limits.add_argument("--atol", type=_limit("tolerance", math.inf), metavar="A",
                        help="|difference| may be A + R * |reference|; default: 1e-5")
    limits.add_argument("--rtol", type=_limit("tolerance", math.inf), metavar="R",
                        help="default: 1e-5")
    limits.add_argument("--cosine", type=_limit("similarity from 0 to 1", 1), metavar="C",
                        help="least cosine similarity of every output of every run")
    limits.add_argument("--top1", type=_limit("share from 0 to 1", 1), metavar="SHARE",
                        help="least share of score vectors with the reference's best, as 95%%")
    pairs = result.add_argument_group("what belongs together")
    pairs.add_argument("--by-order", action="store_true",
                       help="pair outputs by their order, for a compiler that renames them")
    pairs.add_argument("--by-input", action="store_true",
                       help="pair inferences by the checksums of their inputs, not by number")
    pairs.add_argument("--common", action="store_true",
                       help="compare only what both sides have; what a side lacks of its own log's "
                            "inferences still fails")
    pairs.add_argument("--newest", action="store_true",
                       help="of several runs in a directory, take the newest by its time stamps")
    pairs.add_argument("--inputs-differ", action="store_true",
                       help="allow other input files on both sides, as for a model that was "
                            "compiled with its preprocessing")
    pairs.add_argument("--frames-axis", type=int, metavar="N",
                       help="the dimension of a recurrent model's outputs that counts frames, from "
                            "0 on; default: the one as large as the first input's first")
    pairs.add_argument("--type", type=_typed, action="append", default=[], metavar="NAME=TYPE",
                       help="half, int32 or float, where the log does not tell; for both sides")
    pairs.add_argument("--reference-type", type=_typed, action="append", default=[],
                       metavar="NAME=TYPE", help="the same for the reference alone")
    pairs.add_argument("--scores", action="append", default=[], metavar="NAME",
                       help="an output of scores; default: those that are vectors by the log")
    files = result.add_argument_group("files")
    files.add_argument("--log", help="what quilmrun printed for OUT, or its record.json; default: "
                                     "log.txt in OUT or above it, record.json in OUT")
    files.add_argument("--reference-log", metavar="LOG", help="the same for REFERENCE")
    files.add_argument("--inputs", metavar="FILE",
                       help="inputs.json; default: the one beside the log's input files")
    files.add_argument("--reference-inputs", metavar="FILE", help="the same for REFERENCE")
    result.add_argument("--worst", type=int, default=WORST, metavar="N",
                        help=f"how many of the worst runs are listed; default: {WORST}")
    result.add_argument("--all-runs", action="store_true",
                        help=f"list every inference in --json FILE, not only {MOST_FAILURES} "
                             "failures and the worst others")
    result.add_json()
    return result


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion."""
    commands = parser()
    options = commands.parse_args(arguments)
    if options.worst < 0:
        commands.error("--worst takes a number from 0 on")
    check_json(options.json, FORMAT)
    output = read_run_outputs(options.output, Sources(
        options.log, options.inputs, dict(options.type), options.newest))
    reference = _reference(options, output)
    result = compare(output, reference, options, streams)
    if options.json:
        write_json(options.json, result.to_dict(), streams.out)
    if options.json != "-":
        inputs = output.inputs or reference.inputs
        every = (source.path for file in inputs.files for source in file.sources) if inputs else ()
        print_comparison(result, options.worst, every, streams)
    return Status.YES if result.verdict == "pass" else Status.NO


def _reference(options: argparse.Namespace, output: RunOutputs) -> Union[RunOutputs, ArrayOutputs]:
    types = dict([*options.type, *options.reference_type])
    if not Path(options.reference).exists():
        raise Unreadable(f"there is no {options.reference}: name the other run's directory, or "
                         ".npy files")
    arrays = read_arrays(options.reference, output)
    if arrays:
        return arrays
    try:
        return read_run_outputs(options.reference, Sources(
            options.reference_log, options.reference_inputs, types, options.newest))
    except NoOutputs:
        arrays = read_single_arrays(options.reference, output)
        if not arrays:
            raise
        return arrays


def compare(output: RunOutputs, reference: Union[RunOutputs, ArrayOutputs],
            options: argparse.Namespace, streams: Streams) -> Comparison:
    """Reads, compares and judges everything."""
    keys = pair_keys(output, reference, options.by_order)
    counterparts = pair_by_input(output, reference) if options.by_input else \
        same_numbers(output, reference)
    plan = OutputFacts({key: output.tensor(key) or reference.tensor(key) for key in output.keys()},
                _scores(options, output, reference), find_cuts(output, options.frames_axis))
    comparer = Comparer(_limits(options), plan)
    collector = Collector(_limits(options), {key: output.type_of(key) for key in output.keys()},
                          max(options.worst, WORST), options.all_runs)
    pairs = pairs_of(output, reference, keys, counterparts, options.common)
    with np.errstate(all="ignore"):  # set once, because it takes as long as a small output
        for pair in progress(streams, pairs, len(counterparts) * len(keys), "comparing", "output"):
            collector.add(comparer.compare(pair))
    different = None if options.inputs_differ else \
        find_difference(output.inputs, reference.inputs, counterparts)
    about = Circumstances(
        output.path, reference.path,
        [*_missing(output), *_missing(reference), *([str(different)] if different else [])],
        [*output.notes, *(reference.notes if isinstance(reference, RunOutputs) else []),
         *notes_of(plan.frames), *comparer.dead.notes(), *_same_directory(options)],
        LeftOutOfBoth(_left_out(output), _left_out(reference)))
    return collector.result(about, lambda run: _sources(output, reference, run,
                                                        counterparts.get(run, run)))


def _same_directory(options: argparse.Namespace) -> list[str]:
    same = Path(options.output).resolve() == Path(options.reference).resolve()
    return ["both are the same directory"] if same else []


def _sources(output: RunOutputs, reference: Reference, run: int, other: int) -> list[str]:
    """The pictures of an inference that is `other` in the reference."""
    found = output.inputs.sources_of(run) if output.inputs else \
        reference.inputs.sources_of(other) if reference.inputs else []
    return [source.path for source in found]


def _missing(side: Union[RunOutputs, ArrayOutputs]) -> list[str]:
    """A side without all inferences that its own log has fails, whatever the other side has."""
    if not isinstance(side, RunOutputs) or len(side.runs) >= side.folder.expected:
        return []
    return [f"{side.path} has the outputs of {len(side.runs)} of {side.folder.expected} inferences"]


def _left_out(side: Union[RunOutputs, ArrayOutputs]) -> LeftOut:
    if not isinstance(side, RunOutputs):
        return LeftOut()
    return LeftOut(side.folder.left_out, side.folder.left_out_names)


def _scores(options: argparse.Namespace, output: RunOutputs,
            reference: Reference) -> dict[Key, int]:
    """{output: elements of a score vector}"""
    named = {name_in_files(name) for name in options.scores}
    known = {name for name, _ in output.keys()}
    if named - known:
        raise Unreadable(f"--scores: there is no output {min(named - known)} in {output.path}, but "
                         f"{', '.join(sorted(known))}")
    found = {}
    for key in output.keys():
        tensor = output.tensor(key) or reference.tensor(key)
        if key[0] in named or (tensor and not named):
            count = next((values[key].count for run in output.runs
                          if key in (values := output.values_of(run))), 0)
            found[key] = score_length(tensor, count) or (count if key[0] in named else 0)
    if options.top1 is not None and not any(found.values()):
        raise Unreadable("--top1 needs an output of scores: name it with --scores")
    return found


def _limits(options: argparse.Namespace) -> Limits:
    near = (options.atol, options.rtol) != (None, None) or \
        (options.cosine, options.top1) == (None, None)
    atol, rtol = ((value if value is not None else usual) if near else None
                  for value, usual in ((options.atol, ATOL), (options.rtol, RTOL)))
    return Limits(atol, rtol, options.cosine, options.top1)
