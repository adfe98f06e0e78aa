"""Whether a probe still shows the fault that the model has without it."""

from __future__ import annotations

from dataclasses import replace

from quilmrun_tools.artifacts.layer_results import PlainOutputs, Probe
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.layers.measure import snr_db
from quilmrun_tools.layers.own import sample_of
from quilmrun_tools.layers.sides import ProbeRun, read_probe_run

_SAME = 6.0  # dB: twice the error
_BEST = 60.0  # dB: beyond, both are right


def judge(folder: str, probe: Probe, board: ProbeRun, reference: ProbeRun) -> PlainOutputs:
    """Compares the model's own outputs, with and without the probe, to the reference."""
    own_only = replace(probe, files={"plain.onnx": probe.own_outputs}, quantised=None)
    plain = read_probe_run(folder, own_only)
    snrs = [_worst(side, reference, probe.own_outputs) for side in (plain, board)]
    near = abs(min(snrs[0], _BEST) - min(snrs[1], _BEST)) <= _SAME
    return PlainOutputs(folder, snrs[0], snrs[1], near)


def _worst(side: ProbeRun, reference: ProbeRun, outputs: list[str]) -> float:
    """The SNR of the worst of the outputs, over all inferences that both sides have."""
    found = []
    for output in outputs:
        energy = error = 0.0
        runs = side.runs(output) & reference.runs(output)
        for run in runs:
            ours, right = (sample_of(one.values[output][run], 0, 1).astype(float)
                           for one in (side, reference))
            if ours.size != right.size:
                raise Unreadable(f"{output} has {ours.size} values in {side.folder} and "
                                 f"{right.size} in {reference.folder}: these are different models")
            energy += float((right ** 2).sum())
            error += float(((ours - right) ** 2).sum())
        if runs:
            found.append(snr_db(energy, error))
    if not found:
        raise Unreadable(f"{side.folder} has none of the model's own outputs")
    return min(found)
