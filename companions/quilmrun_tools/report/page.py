"""Puts the report's page together: drawings, tables and texts, in one HTML file."""

from __future__ import annotations

import datetime
import json
from collections import Counter
from pathlib import Path

from jinja2 import Environment, FileSystemLoader
from markupsafe import Markup

from quilmrun_tools import __version__
from quilmrun_tools.artifacts.accuracy_results import Classification
from quilmrun_tools.common import units
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.files import read_regular
from quilmrun_tools.report.accuracy_section import accuracy_view
from quilmrun_tools.report.changes import Changes, in_words
from quilmrun_tools.report.charts import Drawings, policy
from quilmrun_tools.report.drawings import charts_of
from quilmrun_tools.report.figures import PHASES, calls_table
from quilmrun_tools.report.layers_section import layers_view
from quilmrun_tools.report.run import PART_TITLES, Run, option
from quilmrun_tools.report.side import Side
from quilmrun_tools.report.statistics import VARIES_MUCH
from quilmrun_tools.report.verdict import count, limits_in_words
from quilmrun_tools.report.where import difference_of, rows_of
from quilmrun_tools.report.worst import worst_cases

GENERATOR = "quilmrun-report"
HERE = Path(__file__).resolve().parent

LONGEST_SETTINGS = 4096  # bytes
# The tool's options, as the settings of the page name them: (option, meaning, default).
OPTIONS = [("-m", "Model", ""), ("-i", "List of inputs", ""), ("-j", "Settings of the runtime", ""),
           ("-o", "Outputs", "/"), ("-b", "Batch size", "1"), ("-t", "Frames", ""),
           ("-r", "RPN data", ""), ("-p", "Profiling", "0")]


def render(sides: list[Side], changes: Changes, title: str, most_cases: int) -> str:
    """The whole page; `changes` are those of the second side against the first."""
    environment = Environment(loader=FileSystemLoader(HERE), autoescape=True, trim_blocks=True,
                              lstrip_blocks=True)
    environment.filters.update(ms=units.milliseconds, size=units.data_size,
                               number=units.significant, percent=units.percent)
    environment.globals.update(
        change=units.change, changed_in_words=in_words, count=count, signed=units.signed_percent,
        limits_in_words=limits_in_words, varies_much=VARIES_MUCH, occurrences=_occurrences)
    main, drawn = sides[-1], Drawings()
    drawings = {name: drawn.add(chart) for name, chart in charts_of(sides).items()}
    cases = worst_cases(main.run, most_cases, drawn)
    layers = layers_view(main.run.layers, drawn)
    scripts = drawn.scripts()
    return environment.get_template("report.html.j2").render(
        title=title or page_title([side.run for side in sides]),
        generator=f"{GENERATOR} {__version__}",
        style=Markup((HERE / "report.css").read_text(encoding="utf-8")),
        created=datetime.datetime.now().strftime("%d %B %Y, %H:%M").lstrip("0"), sides=sides,
        main=main, other=sides[0] if len(sides) > 1 else None, phases=PHASES,
        calls=calls_table([side.figures for side in sides]),
        layers=layers, accuracy=accuracy_view(main.run), accuracies=_accuracies(sides),
        boards=main.run.boards, drawings=drawings, cases=cases, drawn=drawn, scripts=scripts,
        policy=policy(scripts), difference=difference_of(sides), changes=changes,
        settings=[_settings(side.run) for side in sides], started=_started(main.run),
        part_titles=PART_TITLES)


def _occurrences(lines: list[str]) -> list[tuple[str, int]]:
    """Each line and how often it occurs, the most frequent first."""
    return Counter(lines).most_common()


def _accuracies(sides: list[Side]) -> list[tuple[str, Classification]]:
    """Runs whose classes were judged, as rows of one table."""
    return [(side.label, side.run.accuracy) for side in sides
            if isinstance(side.run.accuracy, Classification)]


def page_title(runs: list[Run]) -> str:
    """The model's file name and the run's label, or which run is shown against which."""
    if len(runs) > 1:
        return f"{runs[1].label} against {runs[0].label}"
    model = Path(runs[0].model).name
    return f"{model} · {runs[0].label}" if model else runs[0].label


def _started(run: Run) -> str:
    if not run.record or not run.record.start_us:
        return ""
    moment = datetime.datetime.fromtimestamp(run.record.start_us / 1e6)
    return moment.strftime("%d %B %Y, %H:%M:%S").lstrip("0")


def _settings(run: Run) -> list[tuple[str, str]]:
    """What the run was started with and on, as far as the record or the log tell."""
    command = run.record.command if run.record else []
    rows = [(meaning, option(command, letter) or default) for letter, meaning, default in OPTIONS] \
        if command else [("Model", run.model)]
    if not command and run.log:
        rows += [("Settings of the runtime", run.log.settings_path),
                 ("Batch size", str(run.log.batch_size))]
    place = next((at for at, row in enumerate(rows, 1) if row[0] == "Settings of the runtime"), 0)
    if place:
        rows.insert(place, ("– which say", _settings_text(run, rows[place - 1][1])))
    if run.record:
        cost = run.record.recorder_cost_us
        known = [row for row in rows_of(run.record.where) if row[1]]
        if "Runtime library" not in dict(known):
            known.append(("Runtime library", run.record.library))
        rows += [*known,
                 ("Recorder's own time per call", f"{units.significant(cost)} µs" if cost else ""),
                 ("Calls that were not recorded", str(run.record.dropped or ""))]
    if run.inputs:
        rows += [("Inputs prepared by", " ".join(run.inputs.command))]
    return [(name, value) for name, value in rows if value]


def _settings_text(run: Run, path: str) -> str:
    """What the file of -j holds, where it is still to be found, short, and JSON: whatever else a
    log may call the settings has no place in a page that is passed on."""
    for candidate in (Path(path), *([run.folder / Path(path).name] if run.folder else [])):
        try:
            text = read_regular(candidate, largest=LONGEST_SETTINGS).decode()
            json.loads(text)
        except (Unreadable, ValueError, RecursionError):
            continue
        return text.strip()
    return ""
