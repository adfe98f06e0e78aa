"""The command find."""

from __future__ import annotations

import argparse
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.layer_results import (RESULT_FORM, LayerLimits, LayerResult,
                                                    LayersResult, Probe, read_probe)
from quilmrun_tools.artifacts.run_outputs import Sources
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.executable import find_quilmrun
from quilmrun_tools.common.json_files import check_json, write_json
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.layers import inherited, plain, search, table, verdict
from quilmrun_tools.layers.evidence import Evidence
from quilmrun_tools.layers.inherited import ComparedLayer
from quilmrun_tools.layers.sides import ProbeRun, read_probe_run


@dataclass
class Findings:
    """All that is known of the layers before the verdict."""
    probe: Probe
    board: ProbeRun
    reference: ProbeRun
    compared: list[ComparedLayer]
    problems: dict[str, str]  # {layer: why it was not judged}
    limits: LayerLimits
    own: dict[str, Evidence] = field(default_factory=dict)  # empty without --own
    own_runs: int = 0

    @property
    def decisive(self) -> dict[str, Evidence]:
        """The figures that decide: the own errors, where they were asked for."""
        return self.own if self.own_runs else {
            one.layer.name: one.found for one in self.compared if one.found}


def run(options: argparse.Namespace, streams: Streams) -> int:
    """Compares two runs of a probe and judges each layer."""
    check_json(options.json, RESULT_FORM.name)
    probe = read_probe(Path(options.probe))
    tool = find_quilmrun(options.quilmrun) if options.own else ""
    findings = _compare(options, probe, streams)
    if options.own:
        _compute_own(findings, options, tool, streams)
    result = _result(findings, options)
    _check_decided(findings, result)
    if options.json:
        write_json(options.json, result.to_dict(), streams.out)
    if options.json != "-":
        for line in table.lines(result):
            streams.say(line)
    return Status.YES if result.verdict == "pass" else Status.NO


def _compare(options: argparse.Namespace, probe: Probe, streams: Streams) -> Findings:
    board = read_probe_run(options.board, probe, Sources(options.board_log, newest=options.newest),
                           options.by_order)
    reference = read_probe_run(options.pc, probe, Sources(options.pc_log, newest=options.newest))
    compared, problems = inherited.pair_up(probe, board, reference)
    if not compared:
        reason = next(iter(problems.values()))
        raise Unreadable(f"no layer can be compared: {next(iter(problems))}: {reason}")
    for _ in progress(streams, inherited.judge(compared), len(compared), "comparing", "layer"):
        pass
    return Findings(probe, board, reference, compared, problems,
                    verdict.limits_of(options.snr, options.cosine))


def _compute_own(findings: Findings, options: argparse.Namespace, tool: str,
                 streams: Streams) -> None:
    runs = sorted(set.intersection(*(set(one.runs) for one in findings.compared)))[:options.runs]
    if not runs:
        raise Unreadable("the layers have no inference in common, which --own needs")
    found = search.own_errors(Path(options.probe), findings.probe, findings.compared,
                              findings.reference, runs, tool, streams)
    findings.own, findings.own_runs = found.evidence, len(runs)
    findings.problems.update(found.problems)


def _check_decided(findings: Findings, result: LayersResult) -> None:
    """A pass is given only when nothing was left undecided that was run."""
    open_ones = {name: reason for name, reason in findings.problems.items()
                 if inherited.NOT_RUN not in reason and reason != inherited.NOT_PAIRED}
    if result.verdict == "pass" and open_ones:
        name, reason = next(iter(open_ones.items()))
        raise Unreadable(f"not decided: no layer is beyond the limits, but {len(open_ones)} could "
                         f"not be judged; {name}: {reason}")


def _result(findings: Findings, options: argparse.Namespace) -> LayersResult:
    figures = {one.layer.name: one.found for one in findings.compared if one.found}
    wrong = [name for name, one in figures.items()
             if not verdict.within(one.snr_db, one.cosine, findings.limits)]
    first = wrong[0] if wrong else None
    drops = inherited.drops(findings.compared)
    largest = max(drops, key=lambda name: drops[name], default=None)
    if findings.own_runs:
        wrong = verdict.beyond(findings.own, findings.limits)
        named = wrong[:verdict.NAMED]
    else:  # what follows the first may have inherited everything
        named = [*dict.fromkeys(name for name in (first, largest) if name in wrong)]
    return LayersResult(
        verdict="fail" if wrong else "pass", first=first,
        worst_own=named[0] if named and findings.own_runs else None, named=named,
        largest_drop=largest if largest and drops[largest] > 0 else None,
        own=bool(findings.own_runs), limits=findings.limits,
        runs=len(findings.compared[0].runs), own_runs=findings.own_runs,
        probe=options.probe, board=options.board, reference=options.pc,
        layers=_layers(findings, drops, wrong), notes=_notes(findings),
        plain=plain.judge(options.plain, findings.probe, findings.board, findings.reference)
        if options.plain else None,
        run_next=_run_next(findings, figures))


def _layers(findings: Findings, drops: dict[str, float], wrong: list[str]) -> list[LayerResult]:
    results = {layer.name: LayerResult(
        layer.name, layer.operator, layer.output, layer.node, layer.place, layer.sources,
        passed=layer.name not in wrong, problem=findings.problems.get(layer.name, ""))
        for layer in findings.probe.layers}
    for one in findings.compared:
        name, found = one.layer.name, one.found
        assert found is not None  # judge() has filled it in
        result = results[name]
        result.cosine, result.snr_db = found.cosine, found.snr_db
        result.relative_difference = found.relative_difference
        result.saturated, result.drop_db = one.ranges[0].saturated, drops[name]
        own = findings.own.get(name)
        if own:
            result.own_cosine, result.own_snr_db = own.cosine, own.snr_db
        if not result.passed:
            result.kind, result.explanation = verdict.shape_of_error(findings.decisive[name])
    decisive = findings.decisive
    for name in sorted(decisive, key=lambda name: verdict.severity(decisive[name]))[:3]:
        results[name].histogram = decisive[name].histogram
    return [*results.values()]


def _notes(findings: Findings) -> list[str]:
    notes = [*findings.board.notes, *findings.reference.notes]
    notes += [f"{name}: {reason}" for name, reason in findings.problems.items()]
    return notes


def _run_next(findings: Findings, figures: dict[str, Evidence]) -> Optional[str]:
    """The probe that narrows the place down most: of those that were not run, the one with most
    layers between a good layer and the bad one that follows it."""
    good = {name: verdict.within(one.snr_db, one.cosine, findings.limits)
            for name, one in figures.items()}
    spans: list[list[str]] = [[]]  # probes of the layers after a good layer
    found: list[list[str]] = []
    for layer in findings.probe.layers:
        if layer.name not in good:
            spans[-1].append(layer.file)
        elif good[layer.name]:
            spans.append([])
        else:
            found.append(spans[-1])
            spans.append([])
    without = {*findings.board.without, *findings.reference.without}
    largest = [file for file in max(found, key=len, default=[]) if file in without]
    return max(largest, key=largest.count) if largest else None
