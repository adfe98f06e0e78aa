"""Computes the own errors of all layers, group by group, and keeps what was computed."""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from pathlib import Path
from typing import Iterator, Optional

from quilmrun_tools.artifacts.layer_results import FILE_NAME, Probe
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.layers import own, saved
from quilmrun_tools.layers.cut import sources_of
from quilmrun_tools.layers.evidence import Evidence, evidence
from quilmrun_tools.layers.graph import Graph, load_model
from quilmrun_tools.layers.inherited import ComparedLayer
from quilmrun_tools.layers.measure import Array, LayerError
from quilmrun_tools.layers.own import Failed, Feed
from quilmrun_tools.layers.sides import ProbeRun


@dataclass
class OwnErrors:
    """What was computed, and why the rest was not."""
    evidence: dict[str, Evidence] = field(default_factory=dict)
    problems: dict[str, str] = field(default_factory=dict)


def own_errors(folder: Path, probe: Probe, compared: list[ComparedLayer], reference: ProbeRun,
               runs: list[int], tool: str, streams: Streams) -> OwnErrors:
    """The own errors of the compared layers, in the order of the graph."""
    graph = Graph(load_model(str(folder / next(iter(probe.files)))))
    layers = {one.layer.name: one for one in compared}
    result = OwnErrors()
    wanted = [*_with_sources(graph, layers, result)]
    feed = _feed(graph, compared, reference, runs, result)
    result.problems.update(own.undecidable(feed, [name for name in wanted
                                                  if name not in result.problems]))
    kept = saved.load(folder, saved.key_of(
        folder / FILE_NAME, [side[run] for one in compared for side in (one.board, one.reference)
                             for run in runs], runs))
    result.evidence.update(kept.layers)
    groups = own.parts(feed, [name for name in wanted if name not in kept.layers
                              and name not in result.problems])
    for group in progress(streams, groups, len(groups), "own errors", "part"):
        kept.layers.update(_group(feed, group, layers, tool, result))
        saved.save(folder, kept, streams.out)
    result.evidence.update(kept.layers)
    # In the order of the graph.
    result.evidence = {name: result.evidence[name] for name in layers if name in result.evidence}
    return result


def _with_sources(graph: Graph, layers: dict[str, ComparedLayer],
                  result: OwnErrors) -> Iterator[str]:
    """The layers that are computed from others. The rest reads the model's inputs alone, and so
    does the reference: their own error is the one that was compared."""
    for name, one in layers.items():
        if any(source in layers for source in sources_of(graph, name, set(layers))):
            yield name
        elif one.found:
            result.evidence[name] = one.found


def _group(feed: Feed, group: list[str], layers: dict[str, ComparedLayer], tool: str,
           result: OwnErrors) -> dict[str, Evidence]:
    """The own errors of a group; where it fails, of its halves, down to the layer that fails."""
    errors: dict[str, LayerError] = {name: layers[name].empty_error() for name in group}

    def take(layer: str, _run: int, board: Array, reference: Array) -> None:
        errors[layer].add(board, reference)
    try:
        own.compute(feed, group, tool, take)
    except Failed as failed:
        if len(group) == 1:
            result.problems[group[0]] = f"its own error cannot be computed: {failed}"
            return {}
        return {name: one for half in own.halves(group)
                for name, one in _group(feed, half, layers, tool, result).items()}
    return {name: evidence(error) for name, error in errors.items()}


def _feed(graph: Graph, compared: list[ComparedLayer], reference: ProbeRun, runs: list[int],
          result: OwnErrors) -> Feed:
    """What the board made, and the inputs of the model."""
    shapes = {one.layer.name: one.shape for one in compared}
    batch = _batch(compared[0])
    for one in compared:
        if _batch(one) != batch:
            result.problems[one.layer.name] = "it has another batch size than other layers"
    log = next(iter(reference.logs.values()), None)
    files: dict[int, dict[str, Path]] = {}
    if log:
        shapes.update((tensor.name, list(tensor.dims)) for tensor in log.data_inputs)
        names = [tensor.name for tensor in log.data_inputs]
        for run in runs:
            paths = log.groups[run] if run < len(log.groups) else []
            files[run] = {name: Path(path) for name, path in zip(names, paths)
                          if len(paths) == len(names) and Path(path).is_file()}
    usable = {one.layer.name: one.board for one in compared
              if one.layer.name not in result.problems}
    return Feed(graph, usable, shapes, files, runs, batch)


def _batch(one: ComparedLayer) -> int:
    """How many samples an inference has."""
    values: Optional[int] = one.board[one.runs[0]].count
    return (values or 0) // math.prod(one.shape)
