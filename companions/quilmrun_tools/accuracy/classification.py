"""Measures how well a run tells classes apart: scores of every picture against its true class.

Pictures are added in blocks, so memory does not grow with the number of scores.
"""

import math
from dataclasses import dataclass
from typing import Any, Sequence

import numpy as np

from quilmrun_tools.artifacts.accuracy_results import UNDEFINED, ClassAccuracy, Macro

Array = np.ndarray[Any, Any]

_Z95 = 1.959963984540054  # standard deviations that hold 95 % of a normal distribution


@dataclass(frozen=True)
class Given:
    """What the model gave for some pictures, one element for each."""
    rank: Array  # how many other classes have at least the true one's score
    given: Array  # the class, the true one only where no other has as good a score
    confidence: Array  # in the given class, 0 to 1

    @property
    def right(self) -> Array:
        """Whether the true class has the best score."""
        right: Array = self.rank == 0
        return right


def judge(scores: Array, labels: Array) -> Given:
    """Judges pictures x classes of scores. Ties count against the model, and so does NaN: a score
    that is no number is never below the true one, and as the true one never among the best."""
    rows = np.arange(len(labels))
    own = scores[rows, labels]
    not_below = ~(scores < own[:, None])
    not_below[rows, labels] = False
    rank = np.where(np.isnan(own), scores.shape[1], np.count_nonzero(not_below, axis=1))
    others = np.where(np.isnan(scores), -np.inf, scores)
    others[rows, labels] = -np.inf
    # Where all others are infinitely low, the first of them must not be the true class itself.
    best = np.where(labels == 0, 1 + np.argmax(others[:, 1:], axis=1), np.argmax(others, axis=1))
    given = np.where(rank == 0, labels, best)
    return Given(rank, given, _confidence(scores)[rows, given])


def _confidence(scores: Array) -> Array:
    """Shares of 1: the scores themselves where they are such, otherwise their softmax."""
    finite = np.nan_to_num(scores.astype(np.float64), nan=0.0, posinf=1e30, neginf=-1e30)
    exponents = np.exp(finite - finite.max(axis=1, keepdims=True))
    shares = exponents / exponents.sum(axis=1, keepdims=True)
    are_shares = (finite.min(axis=1) >= 0) & (np.abs(finite.sum(axis=1) - 1) < 0.01)
    return np.where(are_shares[:, None], finite, shares)


class Counts:
    """The confusion matrix of all pictures so far."""

    def __init__(self, classes: int) -> None:
        self.confusion = np.zeros((classes, classes), np.int64)  # rows are the truth
        self.count = self.top1 = self.top5 = 0  # pictures: all, and those that are right

    def add(self, labels: Array, given: Given) -> None:
        """Adds some pictures."""
        np.add.at(self.confusion, (labels, given.given), 1)
        self.count += len(labels)
        self.top1 += int(np.count_nonzero(given.right))
        self.top5 += int(np.count_nonzero(given.rank < 5))

    def classes(self, names: Sequence[str]) -> list[ClassAccuracy]:
        """Precision, recall and F1 of every class; UNDEFINED where the class has no pictures, or
        for the precision where it was never given."""
        right = self.confusion.diagonal()
        support, given = self.confusion.sum(axis=1), self.confusion.sum(axis=0)
        return [ClassAccuracy(name, int(support[at]), _share(right[at], given[at]),
                              _share(right[at], support[at]),
                              _share(2 * right[at], support[at] + given[at]))
                for at, name in enumerate(names)]


def _share(part: int, whole: int) -> float:
    return float(part / whole) if whole else UNDEFINED


def macro_means(classes: Sequence[ClassAccuracy]) -> Macro:
    """Means over the classes that have pictures; a class that was never given has precision 0."""
    known = [one for one in classes if one.support]
    return Macro(*(sum(max(getattr(one, measure), 0.0) for one in known) / len(known)
                   if known else UNDEFINED for measure in ("precision", "recall", "f1")))


def wilson(right: int, count: int) -> tuple[float, float]:
    """The 95 % interval of a share by Wilson's score."""
    if not count:
        return 0.0, 1.0
    share, square = right / count, _Z95 * _Z95
    middle = share + square / (2 * count)
    reach = _Z95 * math.sqrt(share * (1 - share) / count + square / (4 * count * count))
    below, above = ((middle + sign * reach) / (1 + square / count) for sign in (-1, 1))
    return (0.0 if right == 0 else below), (1.0 if right == count else above)


def mcnemar(one_way: int, other_way: int) -> float:
    """The exact two-sided p of McNemar's test: how likely pictures change sides at least as
    unevenly by chance."""
    changed, fewer = one_way + other_way, min(one_way, other_way)
    # Whole numbers keep this exact; a sum of floats would underflow from 1,075 changes on.
    ways = term = 1
    for chosen in range(fewer):
        term = term * (changed - chosen) // (chosen + 1)
        ways += term
    return min(1.0, 2 * ways / (1 << changed)) if changed else 1.0


def confusions(confusion: Array, largest: int) -> list[tuple[int, int, int]]:
    """The largest elements beside the diagonal: (truth, given, pictures)."""
    wrong = confusion.copy()
    np.fill_diagonal(wrong, 0)
    order = np.argsort(-wrong, axis=None, kind="stable")[:largest]
    places = [divmod(int(at), wrong.shape[1]) for at in order]
    return [(true, given, int(wrong[true, given])) for true, given in places if wrong[true, given]]
