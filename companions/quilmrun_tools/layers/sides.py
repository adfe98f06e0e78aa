"""The outputs of a probe in the folder of a run."""

from __future__ import annotations

from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts.element_types import FLOATS, STORED_AS
from quilmrun_tools.artifacts.layer_results import Probe
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_log import RunLog, name_in_files
from quilmrun_tools.artifacts.run_outputs import RunOutputs, Sources, read_run_outputs, text
from quilmrun_tools.artifacts.values import Values, of_dump
from quilmrun_tools.common.errors import Unreadable


@dataclass
class ProbeRun:
    """What the runs of all probes wrote, of one side."""
    folder: str
    values: dict[str, dict[int, Values]] = field(default_factory=dict)  # {output: {inference: }}
    logs: dict[str, RunLog] = field(default_factory=dict)  # {probe: its log}
    shapes: dict[str, list[int]] = field(default_factory=dict)  # {output: its shape by the log}
    without: list[str] = field(default_factory=list)  # probes that were not run
    notes: list[str] = field(default_factory=list)

    def runs(self, output: str) -> set[int]:
        """The inferences that have an output."""
        return set(self.values.get(output, ()))


def read_probe_run(root: str, probe: Probe, sources: Sources = Sources(),
                   by_order: bool = False) -> ProbeRun:
    """Reads the outputs of each probe that was run: in ROOT/probe-1 and so on, or in ROOT."""
    side = ProbeRun(root)
    places = {file: _folder_of(Path(root), file) for file in probe.files}
    if not any(places.values()):
        run = read_run_outputs(root, sources)
        fitting = _fitting(run, probe)
        _add(side, probe, fitting, run, by_order)
        side.without = [file for file in probe.files if file != fitting]
    else:
        for file, place in places.items():
            if place:
                _add(side, probe, file, read_run_outputs(str(place), sources), by_order)
            else:
                side.without.append(file)
    if not side.values:
        raise Unreadable(f"{root} holds no outputs of the probe: name what quilmrun -o had, or "
                         "pair by order (--by-order)")
    return side


def _folder_of(root: Path, file: str) -> Optional[Path]:
    """The folder of one probe's run, named as the probe, or as that of the quantised model."""
    stem = Path(file).stem
    for name in (stem, stem.replace("probe", "quantised", 1)):
        if (root / name).is_dir():
            return root / name
    return None


def _fitting(run: RunOutputs, probe: Probe) -> str:
    """The probe whose outputs a run has most of."""
    found = {name for name, _ in run.keys()}
    return max(probe.files, key=lambda file: sum(name_in_files(name) in found
                                                 for name in probe.files[file]))


def _add(side: ProbeRun, probe: Probe, file: str, run: RunOutputs, by_order: bool) -> None:
    """Takes in the outputs of one probe's run."""
    if run.log:
        side.logs[file] = run.log
    side.notes += run.notes
    keys = _by_order(run, probe, file) if by_order else _by_name(run, probe, file)
    # Without a log, outputs have the types that they have in the model.
    types = {layer.output: STORED_AS.get(layer.type, FLOATS) for layer in probe.layers}
    for name, key in keys.items():
        tensor = run.tensor(key)
        if tensor:
            side.shapes[name] = list(tensor.dims)
    for number in run.runs:
        found = run.values_of(number)
        for name, key in keys.items():
            if key in found:
                known = run.log or run.type_codes
                side.values.setdefault(name, {})[number] = found[key] if known else \
                    of_dump(found[key].path, types.get(name, FLOATS))


def _by_name(run: RunOutputs, probe: Probe, file: str) -> dict[str, Key]:
    """{output of the probe: output of the run} by names as files carry them."""
    found, seen = run.keys(), Counter[str]()
    keys: dict[str, Key] = {}
    for name in probe.files[file]:
        key = name_in_files(name), seen[name_in_files(name)]
        seen[key[0]] += 1
        if key in found:
            keys[name] = key
    # A quantised model may name its own outputs as it likes; they come first.
    others = [key for key in found if key not in keys.values()]
    mine = [name for name in probe.own_outputs if name not in keys]
    if len(others) == len(mine):
        keys.update(zip(mine, others))
    return keys


def _by_order(run: RunOutputs, probe: Probe, file: str) -> dict[str, Key]:
    """The same by the order of outputs."""
    names, found = probe.files[file], run.keys()
    if probe.quantised and len(found) < len(names):
        left_out = {layer.output for layer in probe.layers
                    if layer.name in probe.quantised.unpaired}
        names = [name for name in names if name not in left_out or name in probe.own_outputs]
    if len(names) != len(found):
        raise Unreadable(f"--by-order: {run.path} has {len(found)} outputs "
                         f"({', '.join(map(text, found[:5]))}, ...), the probe {len(names)}")
    return dict(zip(names, found))
