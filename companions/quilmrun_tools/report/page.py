"""Puts the report's page together: drawings, tables and texts, in one HTML file."""

from __future__ import annotations

import datetime
import math
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from jinja2 import Environment, FileSystemLoader
from markupsafe import Markup

from quilmrun_tools import __version__
from quilmrun_tools.artifacts.record import Call
from quilmrun_tools.common import units
from quilmrun_tools.report import charts
from quilmrun_tools.report.figures import PHASES, Figures, calls_table, figures_of
from quilmrun_tools.report.run import Run, option
from quilmrun_tools.report.verdict import Verdict, count, judge, limits_in_words
from quilmrun_tools.report.worst import worst_cases

GENERATOR = "quilmrun-report"
HERE = Path(__file__).resolve().parent

LONGEST_SETTINGS = 4096  # bytes
# The tool's options, as the settings of the page name them: (option, meaning, default).
OPTIONS = [("-m", "Model", ""), ("-i", "List of inputs", ""), ("-j", "Settings of the runtime", ""),
           ("-o", "Outputs", "/"), ("-b", "Batch size", "1"), ("-t", "Frames", ""),
           ("-r", "RPN data", ""), ("-p", "Profiling", "0")]


@dataclass(frozen=True)
class Side:
    """A run on the page; `series` chooses its colour."""

    run: Run
    figures: Figures
    verdict: Verdict
    series: int

    @property
    def label(self) -> str:
        return self.run.label

    @property
    def worst_is(self) -> str:
        worst = self.figures.worst_difference
        return "–" if worst is None else units.significant(worst)


def sides_of(run: Run, other: Run | None) -> list[Side]:
    """The run that is compared with comes first, as a "before"; the run itself last."""
    runs = [(run, 0)] if other is None else [(other, 1), (run, 0)]
    return [Side(each, figures_of(each), judge(each), series) for each, series in runs]


def render(sides: list[Side], title: str, most_cases: int) -> str:
    """The whole page."""
    environment = Environment(loader=FileSystemLoader(HERE), autoescape=True, trim_blocks=True,
                              lstrip_blocks=True)
    environment.filters.update(ms=units.milliseconds, size=units.data_size,
                               number=units.significant, percent=units.percent)
    environment.globals.update(change=units.change, count=count, limits_in_words=limits_in_words,
                               tally=lambda lines: Counter(lines).most_common())
    main = sides[-1]
    return environment.get_template("report.html.j2").render(
        title=title or page_title([side.run for side in sides]),
        generator=f"{GENERATOR} {__version__}",
        style=Markup((HERE / "report.css").read_text(encoding="utf-8")),
        created=datetime.datetime.now().strftime("%d %B %Y, %H:%M").lstrip("0"), sides=sides,
        main=main, other=sides[0] if len(sides) > 1 else None, phases=PHASES,
        calls=calls_table([side.figures for side in sides]),
        drawings=_drawings(sides), cases=worst_cases(main.run, most_cases),
        model_difference=model_difference(sides), settings=[_settings(side.run) for side in sides],
        started=_started(main.run))


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


def _drawings(sides: list[Side]) -> dict[str, Markup]:
    """Histogram, time line, memory and differences; only those for which there is something."""
    drawn: dict[str, Markup] = {}
    executions = _per_series(sides, lambda side: _executions(side.run))
    if any(executions):
        drawn["histogram"] = charts.histogram(
            [[call.duration_ms for call in calls[1:] or calls] for calls in executions],
            _markers(sides),
            units.duration_unit)
        drawn["time line"] = charts.dots(
            [[(call.start_ms, call.duration_ms) for call in calls] for calls in executions],
            units.duration_unit, units.duration_unit, "Duration of every execution, by its start")
    memory = _per_series(sides, lambda side: [(point.at_ms, float(point.bytes)) for point in
                                              (side.run.record.memory if side.run.record else [])])
    if any(memory):
        drawn["memory"] = charts.steps(memory, units.duration_unit, units.size_unit,
                                       "Device memory in use")
    differences = _per_series(sides, lambda side: [(float(index), value) for index, value
                                                   in side.figures.differences
                                                   if math.isfinite(value)])
    if any(len(points) > 1 for points in differences):
        limits = (sides[-1].run.comparison or {}).get("limits") or {}
        drawn["differences"] = charts.dots(differences, units.plain_unit, units.plain_unit,
                                           "Largest difference by inference",
                                           level=limits.get("atol"))
    return drawn


def _per_series(sides: list[Side], values: Any) -> list[list]:
    """The values of every side, the run itself first, as its colours are numbered."""
    return [values(side) for side in sorted(sides, key=lambda side: side.series)]


def _executions(run: Run) -> list[Call]:
    return run.record.executions if run.record else []


def _markers(sides: list[Side]) -> list[charts.Marker]:
    """Percentiles on the histogram: four of one run, two of each when there are two."""
    shown = ("p50", "p90", "p95", "p99") if len(sides) == 1 else ("p50", "p99")
    markers = []
    for side in sides:
        for name in shown if side.figures.execute else ():
            value = getattr(side.figures.execute, name)
            owner = f"{side.label} " if len(sides) > 1 else ""
            markers.append(charts.Marker(value, f"{owner}{name} {units.milliseconds(value)}"))
    return markers


def model_difference(sides: list[Side]) -> str:
    """What tells that two runs are not of the same model; empty when nothing does."""
    logs = [side.run.log for side in sides if side.run.log]
    if len(logs) < 2:
        return ""
    for what in ("data_inputs", "outputs"):
        before, after = ([(tensor.name, tensor.dims, tensor.type_name) for tensor in
                          getattr(log, what)] for log in logs)
        if before != after:
            kind = "inputs" if what == "data_inputs" else "outputs"
            return (f"The two runs are of models with different {kind}: {_listed(before)} in "
                    f"{sides[0].label}, {_listed(after)} in {sides[1].label}. Compare runs of the "
                    "same model, or read the figures side by side with care.")
    return ""


def _listed(tensors: list[tuple]) -> str:
    return "; ".join(f"{name} {kind} {' × '.join(map(str, dims))}"
                     for name, dims, kind in tensors) or "none"


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
        rows += [("Runtime library", run.record.library),
                 ("Recorder's own time per call", f"{units.significant(cost)} µs" if cost else ""),
                 ("Calls that were not recorded", str(run.record.dropped or ""))]
    if run.inputs:
        rows += [("Inputs prepared by", " ".join(run.inputs.command))]
    return [(name, value) for name, value in rows if value]


def _settings_text(run: Run, path: str) -> str:
    """What the file of -j holds, where it is still to be found and short."""
    for candidate in (Path(path), *([run.folder / Path(path).name] if run.folder else [])):
        if path and candidate.is_file() and candidate.stat().st_size <= LONGEST_SETTINGS:
            return candidate.read_text(encoding="utf-8", errors="replace").strip()
    return ""
