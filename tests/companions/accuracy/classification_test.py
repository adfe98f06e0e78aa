"""Measures of classification against numpy and against sums written out."""

import math
import sys
import unittest
from pathlib import Path

import numpy as np

sys.path.append(str(Path(__file__).resolve().parents[3] / "companions"))
from quilmrun_tools.accuracy import classification
from quilmrun_tools.accuracy.classification import Counts, judge, mcnemar, wilson


def by_hand(scores, labels):
    """(confusion, top-1, top-5) picture by picture."""
    confusion, top1, top5 = np.zeros((scores.shape[1],) * 2, int), 0, 0
    for row, label in zip(scores.tolist(), labels.tolist()):
        others = [(score, at) for at, score in enumerate(row) if at != label]
        above = [at for score, at in others if score >= row[label]]
        best = max(score for score, _ in others)
        given = next(at for score, at in others if score == best) if above else label
        confusion[label, given] += 1
        top1, top5 = top1 + (not above), top5 + (len(above) < 5)
    return confusion, top1, top5


class Classification(unittest.TestCase):
    def test_random_labels(self):
        for seed in range(100):
            chance = np.random.default_rng(seed)
            count, classes = int(chance.integers(1, 60)), int(chance.choice([2, 4, 10, 30]))
            # Few distinct scores give many ties.
            scores = chance.integers(0, chance.choice([2, 5, 1000]), (count, classes)) / 8
            labels = chance.integers(0, classes, count)
            counts = Counts(classes)
            for part in (slice(0, 7), slice(7, None)):
                counts.add(labels[part], judge(scores[part].astype("f4"), labels[part]))
            confusion, top1, top5 = by_hand(scores, labels)
            np.testing.assert_array_equal(counts.confusion, confusion)
            self.assertEqual((counts.count, counts.top1, counts.top5), (count, top1, top5))
            self.check_classes(counts.classes([str(at) for at in range(classes)]), confusion)

    def check_classes(self, classes, confusion):
        right, support, given = np.diag(confusion), confusion.sum(1), confusion.sum(0)
        with np.errstate(invalid="ignore"):
            wanted = [np.nan_to_num(values, nan=-1) for values in
                      (right / given, right / support, 2 * right / (support + given))]
        found = np.array([(one.precision, one.recall, one.f1) for one in classes]).T
        np.testing.assert_allclose(found, wanted, rtol=0, atol=1e-12)
        self.assertEqual([one.support for one in classes], support.tolist())
        macro = classification.macro_means(classes)
        np.testing.assert_allclose((macro.precision, macro.recall, macro.f1),
                                   np.maximum(found[:, support > 0], 0).mean(1), atol=1e-12)

    def test_what_is_no_number(self):
        nan, inf = np.nan, np.inf
        for row, label, rank, given in [([nan, 1, 0], 0, 3, 1), ([nan, 1, 0], 1, 1, 2),
                                        ([nan, nan, nan], 0, 3, 1), ([inf, inf, 0], 1, 1, 0),
                                        ([-inf, -inf, -inf], 0, 2, 1), ([inf, 5, 0], 0, 0, 0)]:
            found = judge(np.array([row]), np.array([label]))
            self.assertEqual((found.rank[0], found.given[0]), (rank, given), row)

    def test_confidence(self):
        scores = np.array([[0.2, 0.7, 0.1], [2.0, 0.0, 1.0], [1000.0, 0.0, 0.0]])
        found = judge(scores, np.array([1, 1, 1])).confidence
        np.testing.assert_allclose(found, [0.7, math.e ** 2 / (math.e ** 2 + 1 + math.e), 1])

    def test_intervals(self):
        for right, count, low, high in [(0, 10, 0, .277533), (10, 10, .722467, 1),
                                        (81, 263, .25529, .36621), (50, 100, .40383, .59617)]:
            np.testing.assert_allclose(wilson(right, count), (low, high), atol=1e-5)
        for one, other, p in [(0, 0, 1), (5, 5, 1), (0, 6, 2 / 64), (1, 7, 2 * 9 / 256),
                              (10, 2, 2 * 79 / 4096)]:
            self.assertAlmostEqual(mcnemar(one, other), p, delta=1e-15)
        self.assertLess(0, mcnemar(700, 900))
        self.assertLess(mcnemar(700, 900), 1e-6)

    def test_confusions(self):
        found = classification.confusions(np.array([[9, 2, 0], [3, 9, 2], [0, 0, 9]]), 2)
        self.assertEqual(found, [(1, 0, 3), (0, 1, 2)])


if __name__ == "__main__":
    unittest.main()
