"""What the sums of a layer's error tell about its kind."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Optional

import numpy as np

from quilmrun_tools.artifacts.layer_results import Histogram
from quilmrun_tools.layers.measure import Array, LayerError, Sums, snr_db


@dataclass(frozen=True)
class ChannelEvidence:
    """The channel with most of the error's energy."""
    index: int
    share: float  # of the error's energy
    snr_db: float  # of its own energy, or the mean of all channels where that is more
    values: int
    stands_out_db: float  # its error against that of the next worst channel
    factor: float  # by which its values are too large
    offset: float  # the mean difference
    scale_share: float  # of this channel's error that the factor explains
    offset_share: float


@dataclass(frozen=True)
class Evidence:
    """Figures of a layer's error; shares are of the error's energy."""
    snr_db: float
    cosine: float
    relative_difference: float
    one_sided: int  # values that are no finite numbers on one side only
    offset_share: float  # that a constant for each channel explains
    offset: float  # the mean difference
    scale_share: float  # that a factor for each channel explains
    factor: float  # of all values together
    end_share: float  # where the board's values are at an end and the reference is beyond
    end: float  # that end
    channel: Optional[ChannelEvidence]  # None for fewer than three channels
    histogram: Histogram

    @property
    def error_free(self) -> bool:
        """Whether nothing differs."""
        return math.isinf(self.snr_db) and self.snr_db > 0


def evidence(error: LayerError) -> Evidence:
    """The figures of a layer whose sums are complete."""
    sums, active = error.all, error.active
    assert sums is not None and active is not None  # at least one inference was taken in
    share, end = _end(error)
    return Evidence(
        error.snr_db, error.cosine, error.relative_difference, error.one_sided,
        _explained(active, active.error ** 2, active.count),
        float(active.error.sum() / max(active.count.sum(), 1)),
        _explained(active, active.product ** 2, active.reference_energy),
        _factor(active),
        share, end, _channel(sums, active), error.histogram())


def _explained(sums: Sums, squared: Array, divisor: Array) -> float:
    """The share of the error's energy that one number for each channel explains, free of what so
    many numbers explain of mere noise; 0 where there are too few values to tell."""
    total, count = float(sums.error_energy.sum()), float(sums.count.sum())
    used = np.count_nonzero(sums.count)
    if total <= 0 or count < 3 * used:
        return 0.0
    explained = np.divide(squared, divisor, out=np.zeros_like(divisor), where=divisor > 0).sum()
    rest = max(0.0, total - float(explained)) / (count - used)
    return max(0.0, 1 - rest / (total / count))


def _end(error: LayerError) -> tuple[float, float]:
    total = error.error_energy
    shares = [(energy / total, end) for energy, count, end in
              zip(error.end_energy, error.end_count, (error.board.low, error.board.high))
              if count >= 4 and total > 0]
    return max(shares, default=(0.0, 0.0))


def _factor(sums: Sums) -> float:
    """What multiplies the reference to be most like the board's values."""
    energy = float(sums.reference_energy.sum())
    return 1 + float(sums.product.sum()) / energy if energy > 0 else 1.0


def _channel(sums: Sums, active: Sums) -> Optional[ChannelEvidence]:
    total = float(sums.error_energy.sum())
    if len(sums.error_energy) < 3 or total <= 0:
        return None
    index = int(sums.error_energy.argmax())
    second, largest = (float(energy) for energy in np.sort(sums.error_energy)[-2:])
    signal = max(float(sums.reference_energy[index]), float(sums.reference_energy.mean()))
    one = active.channel(index)
    return ChannelEvidence(
        index, largest / total, snr_db(signal, largest), int(sums.count[index]),
        10 * math.log10(largest / second) if second > 0 else math.inf,
        _factor(one), float(one.error[0] / max(one.count[0], 1)),
        _explained(one, one.product ** 2, one.reference_energy),
        _explained(one, one.error ** 2, one.count))
