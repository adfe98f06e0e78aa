"""quilmrun-compare: are these outputs right?"""

import argparse
import math
from pathlib import Path

from quilmrun_tools.artifacts.prepared_inputs import Source
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.json_files import check_json, write_json
from quilmrun_tools.common.parser import Parser
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.compare import comparison, pairing
from quilmrun_tools.compare.comparison import Comparer, Comparison, Limits
from quilmrun_tools.compare.metrics import Tally
from quilmrun_tools.compare.pairing import Key, Side, text

FORMAT = "quilmrun-compare"
ATOL, RTOL = 1e-5, 1e-5
WORST = 10  # runs that are listed

DESCRIPTION = """\
Compares the outputs of two runs of quilmrun, as those of a board and of the
PC. OUT is what -o named; REFERENCE another such directory, a folder of NAME.npy
(the first dimension is the run) or of RUN/NAME.npy, or one .npy file for a
model's only output. Only the newest run in a directory counts.

Without limits, every value has to be within 1e-5 + 1e-5 * |reference|, as with
numpy.allclose, NaN being equal to NaN. Limits replace this: --atol or --rtol
keep the other's 1e-5, --cosine and --top1 alone do without both.

Types (half floats and 32-bit integers are stored as patterns of bits) and
shapes come from the run's log when it is named, or log.txt in the directory
or above it, names of pictures from inputs.json beside the log's input files.
Without a log, record.json of quilmrun-record tells the types."""

EXAMPLES = """\
  quilmrun-compare board pc
  a board that computes in half floats:
    quilmrun-compare board pc --rtol 1e-2 --atol 1e-3
  a quantised model against the original, by ranking and direction:
    quilmrun-compare int8 float --by-order --cosine 0.98 --top1 95%
  values that another program saved with numpy.save:
    quilmrun-compare out reference.npy --type prob=half --json comparison.json
exit status: 0 within the limits, 1 not, 2 nothing was compared"""


def _limit(name: str, largest: float):
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
    return pairing.name_in_files(name), kind


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
    pairs.add_argument("--common", action="store_true",
                       help="compare only what both sides have")
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
    result.add_argument("--worst", type=int, default=WORST, metavar="N",
                        help=f"how many of the worst runs are listed; default: {WORST}")
    result.add_json()
    return result


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion."""
    options = parser().parse_args(arguments)
    check_json(options.json, FORMAT)
    output = pairing.read_side(options.output, options.log, options.inputs, dict(options.type))
    reference = _reference(options, output)
    keys = pairing.pair_keys(output, reference, options.by_order)
    scores = _scores(options, output, reference)
    result = compare(output, reference, keys, scores, options, streams)
    notes = output.notes + reference.notes
    if Path(options.output).resolve() == Path(options.reference).resolve():
        notes.append("both are the same directory")
    inputs = output.inputs or reference.inputs
    sources = {run: inputs.sources_of(run) for run in output.runs | reference.runs} \
        if inputs else {}
    if options.json:
        write_json(options.json, comparison.to_json(result, output, reference, notes, sources),
                   streams.out)
    if options.json != "-":
        print_result(result, output, notes, sources, options.worst, streams)
    return Status.YES if result.passed else Status.NO


def _reference(options: argparse.Namespace, output: Side) -> Side:
    types = dict([*options.type, *options.reference_type])
    if not Path(options.reference).exists():
        raise Unreadable(f"there is no {options.reference}: name the other run's directory, or "
                         ".npy files")
    return pairing.read_arrays(options.reference, output) or pairing.read_side(
        options.reference, options.reference_log, options.inputs, types)


def _scores(options: argparse.Namespace, output: Side, reference: Side) -> dict[Key, int]:
    """{output: elements of a score vector}"""
    named = {pairing.name_in_files(name) for name in options.scores}
    known = {name for name, _ in output.keys()}
    if named - known:
        raise Unreadable(f"--scores: there is no output {min(named - known)} in {output.path}, but "
                         f"{', '.join(sorted(known))}")
    found = {}
    for key in output.keys():
        tensor = output.tensor(key) or reference.tensor(key)
        if key[0] in named or (tensor and not named):
            count = next(run[key].count for run in output.runs.values() if key in run)
            found[key] = comparison.score_length(tensor, count) or (count if key[0] in named else 0)
    if options.top1 is not None and not any(found.values()):
        raise Unreadable("--top1 needs an output of scores: name it with --scores")
    return found


def compare(output: Side, reference: Side, keys: dict[Key, Key], scores: dict[Key, int],
            options: argparse.Namespace, streams: Streams) -> Comparison:
    """Reads and compares everything."""
    result = Comparison(_limits(options))
    rows = {key: comparison.row_of(output.tensor(key) or reference.tensor(key))
            for key in output.keys()}
    comparer = Comparer(result.limits, scores, rows)
    pairs = [*comparison.every_pair(output, reference, keys, options.common)]
    for one in progress(streams, comparer.compare(pairs), len(pairs), "comparing", "output"):
        result.results.append(one)
        if not one.problem:
            result.totals.setdefault(one.key, Tally()).add(one.tally)
    result.runs = len({one.run for one in result.results if not one.problem})
    return result


def _limits(options: argparse.Namespace) -> Limits:
    near = (options.atol, options.rtol) != (None, None) or \
        (options.cosine, options.top1) == (None, None)
    return Limits(*((value if value is not None else usual) if near else None
                    for value, usual in ((options.atol, ATOL), (options.rtol, RTOL))),
                  options.cosine, options.top1)


_COLUMNS = ("elements", "max abs", "mean abs", "max rel", "cosine", "SNR dB", "differ", "top-1",
            "top-5", "NaN", "inf")


def _cells(tally: Tally) -> list[str]:
    share = tally.differing / tally.elements if tally.elements else 0
    return [f"{tally.elements}", f"{tally.max_abs:.3g}", f"{tally.mean_abs:.3g}",
            f"{tally.max_rel:.3g}", f"{tally.cosine:.7f}", f"{tally.snr_db:.1f}", f"{share:.1%}",
            *("-" if agreed is None else f"{agreed:.1%}" for agreed in (tally.top1, tally.top5)),
            *("/".join(map(str, counts)) if any(counts) else "0"
              for counts in (tally.nan, tally.inf))]


def _print_table(head: list[str], rows: list[list[str]], streams: Streams) -> None:
    """Columns as wide as their longest cell, measures flush right."""
    widths = [max(len(row[at]) for row in [head, *rows]) for at in range(len(head))]
    for row in [head, *rows]:
        streams.say("  ".join(cell.rjust(width) if title in _COLUMNS else cell.ljust(width)
                              for cell, title, width in zip(row, head, widths)).rstrip())


def _printable(name: str) -> str:
    """A file name on one line."""
    return "".join(letter if letter.isprintable() else "?" for letter in name)


def print_result(result: Comparison, output: Side, notes: list[str],
                 sources: dict[int, list[Source]], worst: int, streams: Streams) -> None:
    """Outputs, the worst runs, notes and the verdict."""
    labels = {run: _printable(", ".join(source.label for source in found))
              for run, found in sources.items()}
    _print_table(["output", "type", *_COLUMNS],
                 [[text(key), comparison.type_of(key, output), *_cells(tally)]
                  for key, tally in result.totals.items()], streams)
    listed = [one for one in result.worst() if one.tally.max_abs > 0 or one.problem][:max(worst, 0)]
    compared = [one for one in listed if not one.problem]
    if compared:
        streams.say("\nworst runs:")
        _print_table(["run", "output", *_COLUMNS, "from"],
                     [[str(one.run), text(one.key), *_cells(one.tally),
                       labels.get(one.run, "")] for one in compared], streams)
    problems = [one for one in result.results if one.problem]
    if problems:
        streams.say()
    for one in problems[:max(worst, 1)]:
        label = labels.get(one.run, "")
        streams.say(f"{one.run}/{text(one.key)}: {one.problem}; {label}".rstrip("; "))
    if len(problems) > max(worst, 1):
        streams.say(f"... and {len(problems) - max(worst, 1)} more")
    for note in notes:
        streams.say(f"note: {note}")
    streams.say(f"\n{verdict(result)}")


def verdict(result: Comparison) -> str:
    """One line."""
    compared = [one for one in result.results if not one.problem]
    failed: list[str] = []
    beyond = sum(1 for one in compared if not one.passed)
    if beyond:
        failed.append(f"{beyond} of {len(compared)} outputs beyond the limits")
    if len(compared) < len(result.results):
        failed.append(f"{len(result.results) - len(compared)} could not be compared")
    failed += [f"{text(key)}: top-1 agreement {result.totals[key].top1:.1%}"
               for key in result.low_top1()]
    runs = f"{result.runs} {'run' if result.runs == 1 else 'runs'}"
    if failed:
        return f"FAIL: {'; '.join(failed)} ({runs}; {result.limits})"
    return f"PASS: {runs}, {result.limits}"
