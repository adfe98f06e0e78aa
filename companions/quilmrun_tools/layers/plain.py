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


def judge(folder: str, probe: Probe, board: ProbeRun, pc: ProbeRun) -> PlainOutputs:
    """Compares the model's own outputs, with and without the probe, to the reference."""
    own_only = replace(probe, files={"plain.onnx": probe.own_outputs}, quantised=None)
    plain = read_probe_run(folder, own_only)
    snrs = [_worst(side, pc, probe.own_outputs) for side in (plain, board)]
    near = abs(min(snrs[0], _BEST) - min(snrs[1], _BEST)) <= _SAME
    return PlainOutputs(folder, snrs[0], snrs[1], near)


def _worst(side: ProbeRun, pc: ProbeRun, outputs: list[str]) -> float:
    """The SNR of the worst of the outputs, over all inferences that both sides have."""
    found = []
    for output in outputs:
        energy = error = 0.0
        runs = side.runs(output) & pc.runs(output)
        for run in runs:
            b, r = (sample_of(one.values[output][run], 0, 1) for one in (side, pc))
            if b.size != r.size:
                raise Unreadable(f"{output} has {b.size} values in {side.folder} and {r.size} in "
                                 f"{pc.folder}: these are different models")
            energy += float((r.astype(float) ** 2).sum())
            error += float(((b.astype(float) - r) ** 2).sum())
        if runs:
            found.append(snr_db(energy, error))
    if not found:
        raise Unreadable(f"{side.folder} has none of the model's own outputs")
    return min(found)
