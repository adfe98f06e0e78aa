"""How long inferences take on a board, and whether that is remarkable among the boards."""

from __future__ import annotations

import math
from typing import Optional, Sequence

from quilmrun_tools.artifacts.board_results import Difference, Latency

_DEVIATIONS = 1.96  # 95 % of a normal distribution


def latency_of(durations: Sequence[float], source: str) -> Optional[Latency]:
    """What durations in milliseconds have in common; None when there are none."""
    if not durations:
        return None
    ranked = sorted(durations)
    total = sum(ranked)
    low, high = _median_interval(ranked)
    return Latency(source, len(ranked), _percentile(ranked, 50), _percentile(ranked, 99), low, high,
                   1000 * len(ranked) / total if total > 0 else 0.0)


def _median_interval(ranked: Sequence[float]) -> tuple[float, float]:
    """By ranks, whatever the distribution: how many of n durations are below the median varies by
    half the square root of n."""
    count = len(ranked)
    spread = _DEVIATIONS * math.sqrt(count) / 2
    low = max(math.floor((count - 1) / 2 - spread), 0)
    high = min(math.ceil((count - 1) / 2 + spread), count - 1)
    return ranked[low], ranked[high]


def _percentile(ranked: Sequence[float], percent: int) -> float:
    below, rest = divmod(percent * (len(ranked) - 1), 100)
    above = min(below + 1, len(ranked) - 1)
    return ranked[below] + rest / 100 * (ranked[above] - ranked[below])


def difference_from(one: Optional[Latency], others: Optional[Latency]) -> Optional[Difference]:
    """A board's median against that of all others; None without one of them."""
    if one is None or others is None or others.p50_ms <= 0:
        return None
    median = others.p50_ms
    return Difference((one.p50_ms - median) / median,
                      (one.p50_low_ms - others.p50_high_ms) / median,
                      (one.p50_high_ms - others.p50_low_ms) / median)
