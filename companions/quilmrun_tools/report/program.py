"""quilmrun-report: one page that shows what there is of a run."""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import Any


from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.json_files import check_json, write_json
from quilmrun_tools.common.own_files import write_own
from quilmrun_tools.common.parser import Parser
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.common.units import milliseconds
from quilmrun_tools.report import changes
from quilmrun_tools.report.changes import Changes, changes_of, in_words
from quilmrun_tools.report.figures import as_json
from quilmrun_tools.report.page import GENERATOR, render
from quilmrun_tools.report.run import PART_TITLES, USUAL_NAMES, collect
from quilmrun_tools.report.side import Side, sides_of
from quilmrun_tools.report.verdict import FAIL
from quilmrun_tools.report.where import difference_of

MARKER = f'<meta name="generator" content="{GENERATOR}'.encode()

DESCRIPTION = """\
One self-contained HTML page of a run, made of its log, memory report, record,
comparison and inputs. What is missing is named there, with the way to get it."""

EXAMPLES = """\
  quilmrun-report run                        writes run/report.html
  quilmrun-report run -o page.html --inputs prepared/inputs.json
  quilmrun-report after --compare-with before
exit status: 0, 1 when the run failed or its outputs exceed limits, 2 when
nothing could be read or written"""


def parse(arguments: list[str]) -> argparse.Namespace:
    """The command line."""
    parser = Parser("quilmrun-report", DESCRIPTION, EXAMPLES)
    parser.add_argument("run", nargs="?", metavar="RUN",
                        help=f"folder with some of {', '.join(USUAL_NAMES.values())}")
    parser.add_argument("-o", "--output", metavar="FILE",
                        help="the page; RUN/report.html by default, never written over a file that "
                             "is not a report")
    for part, usual in USUAL_NAMES.items():
        parser.add_argument(f"--{part}", metavar="FILE",
                            help=f"{PART_TITLES[part].lower()}, instead of RUN/{usual}")
    parser.add_argument("--compare-with", metavar="RUN", help="folder of another run, such as the "
                        "one before a change, shown side by side")
    parser.add_argument("--name", default="", help="the run's name on the page; its folder's by "
                        "default")
    parser.add_argument("--other-name", default="", metavar="NAME",
                        help="the same for the run of --compare-with")
    parser.add_argument("--title", default="", help="the page's heading; model and run by default")
    parser.add_argument("--worst", type=int, default=6, metavar="N",
                        help="worst cases of the comparison to show; 6 by default")
    parser.add_json()
    return parser.parse_args(arguments)


def main(arguments: list[str], streams: Streams) -> int:
    """Returns 0, or 1 when the verdict is a failure."""
    options = parse(arguments)
    if options.worst < 0:
        raise Unreadable("--worst takes a number from 0 on")
    check_json(options.json, GENERATOR)
    named = {part: getattr(options, part) for part in USUAL_NAMES}
    run = collect(options.run, named, options.name, streams)
    other = collect(options.compare_with, {}, options.other_name, streams) \
        if options.compare_with else None
    sides = sides_of(run, other)
    if difference_of(sides):
        streams.warn(difference_of(sides))
    target = options.output or str(Path(options.run or ".") / "report.html")
    found = changes_of(*(side.figures for side in sides)) if other else {}
    page = render(sides, found, options.title, options.worst)
    # File names may hold bytes that are no text; a page has to be text.
    write_own(target, page.encode("utf-8", "replace"), MARKER, GENERATOR)
    if options.json:
        write_json(options.json, to_json(sides, found, target), streams.out)
    if options.json != "-":
        streams.say(summary(sides, found))
        streams.say(f"The page is {target}")
    return Status.NO if sides[-1].verdict.state == FAIL else Status.YES


def to_json(sides: list[Side], found: Changes, page: str) -> dict[str, Any]:
    """The figures for machines."""
    main_side = sides[-1]
    result = {"format": GENERATOR, "version": 1, "page": page, "verdict": main_side.verdict.state,
              "run": as_json(main_side.run, main_side.figures)}
    if len(sides) > 1:
        result["compared_with"] = as_json(sides[0].run, sides[0].figures)
        result["changes"] = changes.as_json(found)
    return result


def _by_clock(side: Side) -> str:
    rate = side.figures.by_clock
    return f", by the clock {rate:,.0f} inferences" if rate else ""


def summary(sides: list[Side], found: Changes) -> str:
    """The verdict, and the percentiles of an execution, as lines of text."""
    lines = [f"{sides[-1].verdict.word}: {sides[-1].verdict.text}"]
    for side in sides:
        figures = side.figures.execute
        if figures:
            owner = f"{side.label}: " if len(sides) > 1 else ""
            shown = ", ".join(f"{name} {milliseconds(getattr(figures, name))}"
                              for name in ("p50", "p90", "p95", "p99"))
            lines.append(f"{owner}execution {shown}; back to back {figures.per_second:,.0f} "
                         f"executions a second{_by_clock(side)}")
    if len(sides) > 1 and all(side.figures.execute for side in sides):
        change = found["execute"]["p50"]
        lines.append(f"p50 of {sides[1].label} against {sides[0].label}: {in_words(change)}")
    return "\n".join(lines)
