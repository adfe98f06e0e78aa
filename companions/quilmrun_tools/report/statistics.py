"""Whether durations differ: intervals instead of single numbers, which always differ a little.

A record has no single durations, but their histogram. Samples are drawn from it (bootstrap), with a
fixed seed: the same runs give the same interval. What disturbs a run lasts for a while, so that
neighbouring durations are alike and tell less than as many independent ones; how much less is taken
from the course of the run.
"""

from __future__ import annotations

import functools
import math
from dataclasses import dataclass
from typing import Any, Sequence

import numpy as np

CONFIDENCE = 0.95
# Two starts of one program differ by so much all the same: memory lies elsewhere, and the clock of
# the processor is another. No sample of one run can show that, so intervals are wider by it.
BETWEEN_STARTS = 0.01
# Durations come in steps of some 10 ns, and what noting a call takes moves by as much.
CLOCK_MS = 3e-5
VARIES_MUCH = 0.20  # coefficient of variation

Histogram = Sequence[tuple[float, int]]  # (duration, count), durations rising
Floats = np.ndarray[Any, np.dtype[np.float64]]

_RESAMPLES = 1000
_STRETCHES = 20  # of a run, in which durations may be alike
_SHORTEST = 5  # durations of a stretch
_LEAST_OF_A_TENTH = 5  # medians that a tenth of a run must have for a trend
_SEED = 20_261_123


@dataclass(frozen=True)
class Change:
    """How much one value is above (+) or below (-) another, as a share of that other."""

    share: float
    low: float  # of the interval that holds the true share with CONFIDENCE
    high: float

    @property
    def shown(self) -> bool:
        """Whether the two differ: the interval does not hold 0."""
        return self.low > 0 or self.high < 0


@dataclass(frozen=True)
class Sample:
    """The durations of one run. `alike` is how many neighbours tell as much as a single duration
    that depends on no other: 1 when all are independent."""

    histogram: Histogram
    alike: float = 1.0

    @property
    def count(self) -> int:
        return sum(times for _, times in self.histogram)

    @property
    def mean(self) -> float:
        return sum(value * times for value, times in self.histogram) / max(self.count, 1)

    def percentile(self, percent: float) -> float:
        """The duration below which so many percent lie."""
        rank, seen = percent / 100 * (self.count - 1), 0
        for value, times in self.histogram:
            seen += times
            if seen > rank:
                return value
        return self.histogram[-1][0]

    def drawn_percentiles(self, percent: float) -> Floats:
        """The percentile of each of many samples that are drawn from the run with replacement."""
        values, counts, size = self._draws
        below = counts.cumsum(axis=1) > percent / 100 * (size - 1)
        return np.asarray(values[np.argmax(below, axis=1)])

    def drawn_means(self) -> Floats:
        """The same of the mean."""
        values, counts, size = self._draws
        return np.asarray(counts @ values / size)

    @functools.cached_property
    def _draws(self) -> tuple[Floats, Any, int]:
        """The values of the histogram; how often each is in every sample that is drawn; and the
        size of a sample, which is less when neighbours are alike."""
        values = np.array([value for value, _ in self.histogram])
        counts = np.array([times for _, times in self.histogram])
        size = max(2, round(self.count / self.alike))
        random = np.random.default_rng(_SEED)
        return values, random.multinomial(size, counts / counts.sum(), _RESAMPLES), size


def change_of_percentile(before: Sample, after: Sample, percent: float) -> Change | None:
    """The change of a percentile from one run to another. None where fewer than two durations of a
    run lie beyond it, because then a single one decides."""
    beyond = min(percent, 100 - percent) / 100
    if min(before.count, after.count) * beyond < 2 or before.percentile(percent) <= 0:
        return None
    return _change(before.percentile(percent), after.percentile(percent),
                   before.drawn_percentiles(percent), after.drawn_percentiles(percent))


def change_of_mean(before: Sample, after: Sample) -> Change | None:
    """The change of the mean from one run to another; None for single durations."""
    if min(before.count, after.count) < 2 or before.mean <= 0:
        return None
    return _change(before.mean, after.mean, before.drawn_means(), after.drawn_means())


def alike(course: Sequence[float]) -> float:
    """How many neighbours in the course of a run tell as much as one independent duration: by how
    much more stretches of neighbours differ in their share of slow durations than stretches of
    independent ones would. 1 for a run that is too short to tell."""
    length = len(course) // _STRETCHES
    if length < _SHORTEST:
        return 1.0
    values = np.asarray(course, float)[:length * _STRETCHES]
    slow = (values > np.median(values)).astype(float)
    independent = max(float(slow.var()), 1e-12) / length
    shares = slow.reshape(_STRETCHES, length).mean(axis=1)
    return min(max(float(shares.var(ddof=1)) / independent, 1.0), float(length))


def inverse(change: Change | None) -> Change | None:
    """The change of a rate, given that of the duration."""
    if change is None or change.low <= -1:
        return None
    return Change(*(1 / (1 + share) - 1 for share in (change.share, change.high, change.low)))


def trend_of(course: Sequence[float]) -> Change | None:
    """The change of the median from the first tenth of a run to its last, such as that of a board
    which grows hot. None when the run is too short to tell."""
    tenth = len(course) // 10
    if tenth < _LEAST_OF_A_TENTH:
        return None
    first, last = (Sample([(value, 1) for value in sorted(part)], alike(course))
                   for part in (course[:tenth], course[-tenth:]))
    return change_of_percentile(first, last, 50)


def variation_of(histogram: Histogram) -> float:
    """The coefficient of variation: standard deviation by mean."""
    sample = Sample(histogram)
    if sample.mean <= 0:
        return 0.0
    squares = sum(times * (value - sample.mean) ** 2 for value, times in histogram)
    return math.sqrt(squares / sample.count) / sample.mean


def _change(base: float, now: float, before: Floats, after: Floats) -> Change:
    tail = 50 * (1 - CONFIDENCE)
    # Both were drawn with one seed. Shuffled, the draws of two runs depend on each other no more.
    shuffled = np.random.default_rng(_SEED + 1).permutation(after)
    low, high = np.percentile(shuffled / before - 1, [tail, 100 - tail])
    unknown = BETWEEN_STARTS + CLOCK_MS / base
    return Change(now / base - 1, float(low) - unknown, float(high) + unknown)
