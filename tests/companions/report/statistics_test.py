"""When two runs differ, and when that is chance: known answers and runs that are made up."""

import math
import pathlib
import random
import sys
import unittest
from collections import Counter

sys.path.append(str(pathlib.Path(__file__).parents[2]))

import companion  # pylint: disable=unused-import  # so that the package is found

from quilmrun_tools.report.statistics import (
    BETWEEN_STARTS, CLOCK_MS, Change, Sample, alike, change_of_mean, change_of_percentile, inverse,
    trend_of, variation_of)


def durations(seed, count, factor=1.0):
    """A run whose durations have a tail, as those of real runs."""
    chosen = random.Random(seed)
    return [factor * (1 + chosen.gammavariate(2, 0.05)) for _ in range(count)]


def sample(values, neighbours=1.0):
    """A histogram with bins of 0.2 %, as those of a record."""
    bins = Counter(round(math.log(value) / 0.002) for value in values)
    return Sample([(math.exp(place * 0.002), bins[place]) for place in sorted(bins)], neighbours)


class Changes(unittest.TestCase):
    def test_exact(self):
        """Where all durations are the same, only what two starts differ by is left."""
        change = change_of_percentile(Sample([(2.0, 50)]), Sample([(3.0, 70)]), 50)
        self.assertEqual(change.share, 0.5)
        self.assertAlmostEqual(change.low, 0.5 - BETWEEN_STARTS - CLOCK_MS / 2)
        self.assertAlmostEqual(change.high, 0.5 + BETWEEN_STARTS + CLOCK_MS / 2)
        steps = change_of_percentile(Sample([(0.0002, 50)]), Sample([(0.00022, 70)]), 50)
        self.assertFalse(steps.shown)  # two steps of the clock
        self.assertEqual(change_of_mean(Sample([(2.0, 50)]), Sample([(3.0, 70)])), change)
        self.assertEqual(inverse(Change(1.0, 0.0, 3.0)), Change(-0.5, -0.75, 0.0))

    def test_percentiles(self):
        one = Sample([(1.0, 50), (2.0, 40), (3.0, 9), (4.0, 1)])
        self.assertEqual([one.percentile(percent) for percent in (0, 50, 90, 95, 99, 100)],
                         [1, 1, 2, 3, 3, 4])
        self.assertAlmostEqual(one.mean, 1.61)
        self.assertAlmostEqual(variation_of([(1.0, 1), (3.0, 1)]), 0.5)

    def test_chance_and_difference(self):
        for percent, count, factor, shown in [(50, 300, 1.0, 0), (50, 300, 1.05, 10),
                                              (99, 5000, 1.0, 0), (99, 5000, 1.15, 10)]:
            with self.subTest(percent=percent, factor=factor):
                found = [change_of_percentile(sample(durations(seed, count)),
                                              sample(durations(seed + 99, count, factor)), percent)
                         for seed in range(10)]
                self.assertLessEqual(abs(sum(one.shown for one in found) - shown), 1)

    def test_too_few(self):
        """A single duration beyond a percentile decides nothing."""
        few = sample(durations(1, 100))
        self.assertIsNone(change_of_percentile(few, sample(durations(2, 1000)), 99))
        self.assertIsNone(change_of_mean(sample([1.0]), few))
        self.assertIsNone(trend_of([1.0] * 49))
        self.assertFalse(trend_of([1.0] * 50).shown)

    def test_neighbours(self):
        """What disturbs a run for a while makes many durations tell as much as one."""
        self.assertLess(alike(durations(1, 400)), 2)
        calm_and_disturbed = [1 + (at // 40 % 2) + value for at, value in
                              enumerate(durations(1, 400))]
        self.assertGreater(alike(calm_and_disturbed), 8)
        wide, narrow = (change_of_percentile(sample(durations(1, 400), neighbours),
                                             sample(durations(2, 400), neighbours), 50)
                        for neighbours in (16, 1))
        self.assertGreater(wide.high - wide.low, 2 * (narrow.high - narrow.low))

    def test_trend(self):
        hot = [value * (1 + at / 5000) for at, value in enumerate(durations(3, 1000))]
        trend = trend_of(hot)
        self.assertTrue(0 < trend.low < trend.share < trend.high < 0.3, trend)
        self.assertLess(trend_of(hot[::-1]).high, 0)


if __name__ == "__main__":
    unittest.main()
