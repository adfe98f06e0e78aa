"""The command probe."""

from __future__ import annotations

import argparse
import json
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts import layer_results
from quilmrun_tools.artifacts.layer_results import Probe, QuantisedProbe
from quilmrun_tools.common.decoding import Wrong, decode
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.files import read_regular
from quilmrun_tools.common.json_files import check_json, json_marker, write_json
from quilmrun_tools.common.own_files import check_own
from quilmrun_tools.common.streams import Streams
from quilmrun_tools.layers import quantised
from quilmrun_tools.layers.choose import Choice, Chosen, choose
from quilmrun_tools.layers.graph import Graph, load_model
from quilmrun_tools.layers.probe import (Outputs, check_folder, checksum, describe, plan,
                                         said_of_sizes, write_probes)


def run(options: argparse.Namespace, streams: Streams) -> int:
    """Makes a probe of a model, and one of its quantised form."""
    check_json(options.json, layer_results.PROBE_FORM.name)
    folder = Path(options.output)
    graph = Graph(load_model(options.model), _input_shapes(options.quilm_json))
    choice = Choice(options.all, options.only, options.tensors, options.first, options.last)
    chosen, notes = choose(graph, choice)
    outputs = plan(graph, chosen, options.at_most, "probe")
    layers = describe(graph, chosen, outputs)
    second = quantised.names_for(outputs) if options.quantised else []
    check_folder(folder, [*outputs.files, *second])
    check_own(str(folder / layer_results.FILE_NAME),
              json_marker(layer_results.PROBE_FORM.name), layer_results.PROBE_FORM.name)
    if options.json != "-":
        for line in said_of_sizes(layers):
            streams.say(line)
    write_probes(graph, outputs, folder)
    probe = Probe(
        checksum(Path(options.model)), graph.inputs, outputs.files, graph.outputs,
        {tensor: name for tensor, name in outputs.names.items() if tensor != name}, layers,
        _quantised(options.quantised, graph, chosen, outputs, folder), notes)
    write_json(str(folder / layer_results.FILE_NAME), probe.to_dict(), streams.out)
    _say(options, probe, streams)
    return Status.YES


def _input_shapes(path: Optional[str]) -> dict[str, list[int]]:
    """The shapes of inputs that the host runtime's settings give."""
    if path is None:
        return {}
    try:
        settings = json.loads(read_regular(path))
        return decode(dict[str, list[int]], settings.get("input_shapes", {}))
    except (ValueError, AttributeError, RecursionError) as error:
        raise Unreadable(f"{path} is no JSON object of settings") from error
    except Wrong as wrong:
        raise Unreadable(f"{path}: input_shapes {wrong}") from wrong


def _quantised(path: Optional[str], graph: Graph, chosen: list[Chosen], outputs: Outputs,
               folder: Path) -> Optional[QuantisedProbe]:
    if path is None:
        return None
    other = Graph(load_model(path))
    found = quantised.pair(graph, chosen, other)
    files = quantised.write_quantised(other, outputs, found.pairs, folder)
    return QuantisedProbe(checksum(Path(path)), files, found.pairs, found.unpaired)


def _say(options: argparse.Namespace, probe: Probe, streams: Streams) -> None:
    """What was made and what to do with it; warnings of what was not."""
    for note in probe.notes:
        streams.warn(note)
    if probe.quantised and probe.quantised.unpaired:
        streams.warn(f"{len(probe.quantised.unpaired)} layers have no counterpart in "
                     f"{options.quantised}: {', '.join(probe.quantised.unpaired)}")
    if options.json:
        write_json(options.json, probe.to_dict(), streams.out)
    if options.json == "-":
        return
    folder = Path(options.output)
    for tensor, name in probe.renamed.items():
        streams.say(f"{tensor} is output {name}")
    files = [*probe.files, *(probe.quantised.files if probe.quantised else [])]
    streams.say(f"written: {', '.join(str(folder / file) for file in files)} and "
                f"{folder / layer_results.FILE_NAME}")
    if len(probe.files) > 1:
        streams.say("next: run each probe on the board and here, with -o BOARD/probe-1 and so on; "
                    f"then quilmrun-layers find {folder} BOARD PC --own")
    else:
        streams.say("next: run it on the board, compiled, and here; then "
                    f"quilmrun-layers find {folder} BOARD PC --own")
