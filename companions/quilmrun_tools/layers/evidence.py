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
        _explained(active, active.e ** 2, active.n),
        float(active.e.sum() / max(active.n.sum(), 1)),
        _explained(active, active.re ** 2, active.rr),
        1 + float(active.re.sum() / active.rr.sum()) if active.rr.sum() > 0 else 1.0,
        share, end, _channel(sums, active), error.histogram())


def _explained(sums: Sums, squared: Array, by: Array) -> float:
    """The share of the error's energy that one number for each channel explains, free of what so
    many numbers explain of mere noise; 0 where there are too few values to tell."""
    total, count = float(sums.ee.sum()), float(sums.n.sum())
    used = np.count_nonzero(sums.n)
    if total <= 0 or count < 3 * used:
        return 0.0
    explained = np.divide(squared, by, out=np.zeros_like(by), where=by > 0).sum()
    rest = max(0.0, total - float(explained)) / (count - used)
    return max(0.0, 1 - rest / (total / count))


def _end(error: LayerError) -> tuple[float, float]:
    total = error.error_energy
    shares = [(energy / total, end) for energy, count, end in
              zip(error.end_energy, error.end_count, (error.board.low, error.board.high))
              if count >= 4 and total > 0]
    return max(shares, default=(0.0, 0.0))


def _channel(sums: Sums, active: Sums) -> Optional[ChannelEvidence]:
    total = float(sums.ee.sum())
    if len(sums.ee) < 3 or total <= 0:
        return None
    index = int(sums.ee.argmax())
    ee = float(sums.ee[index])
    second = float(np.sort(sums.ee)[-2])
    one = active.channel(index)
    return ChannelEvidence(
        index, ee / total, snr_db(max(float(sums.rr[index]), float(sums.rr.mean())), ee), int(sums.n[index]),
        10 * math.log10(ee / second) if second > 0 else math.inf,
        1 + float(one.re[0] / one.rr[0]) if one.rr[0] > 0 else math.inf,
        float(one.e[0] / max(one.n[0], 1)),
        _explained(one, one.re ** 2, one.rr), _explained(one, one.e ** 2, one.n))
