"""How far values are from their reference, in one pass over chunks that fit into the cache.

Everything is computed in 64-bit floats. Only the sums of squares are kept in wider ones, because
the squares of 64-bit floats may lie beyond what these hold.
"""

import math
from dataclasses import dataclass, field
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.comparison import Measures

CHUNK = 1 << 14  # elements: few enough for the cache, enough to outweigh NumPy's own work

Array = np.ndarray[Any, Any]


@dataclass
class ErrorStatistics:  # pylint: disable=too-many-instance-attributes  # one for each measure
    """Measures of one comparison or of several; differences are output - reference.

    A pair of NaN, or of the same infinity, is equal; with a NaN or an infinity on one side only,
    the difference is infinite. Such pairs are left out of the sums.
    """
    elements: int = 0
    differing: int = 0
    max_abs: float = 0.0
    sum_abs: float = 0.0
    max_rel: float = 0.0  # |difference| / |reference|, where the reference is not 0
    beyond: bool = False  # some |difference| > atol + rtol * |reference|
    energy: np.longdouble = field(default_factory=np.longdouble)  # sum of squares of the output
    reference_energy: np.longdouble = field(default_factory=np.longdouble)
    error_energy: np.longdouble = field(default_factory=np.longdouble)
    nan: int = 0
    reference_nan: int = 0
    inf: int = 0
    reference_inf: int = 0
    score_rows: int = 0
    top1_rows: int = 0
    top5_rows: int = 0

    def add(self, other: "ErrorStatistics") -> None:
        """Takes in the measures of further values."""
        self.elements += other.elements
        self.differing += other.differing
        self.max_abs = max(self.max_abs, other.max_abs)
        self.sum_abs += other.sum_abs
        self.max_rel = max(self.max_rel, other.max_rel)
        self.beyond |= other.beyond
        self.energy += other.energy
        self.reference_energy += other.reference_energy
        self.error_energy += other.error_energy
        self.nan += other.nan
        self.reference_nan += other.reference_nan
        self.inf += other.inf
        self.reference_inf += other.reference_inf
        self.score_rows += other.score_rows
        self.top1_rows += other.top1_rows
        self.top5_rows += other.top5_rows

    @property
    def cosine(self) -> float:
        """Cosine similarity; 1 for two zero vectors. By the energies of both and of their
        difference, so that nearly equal vectors lose no digits."""
        if self.error_energy == 0:
            return 1.0
        product = 2 * np.sqrt(self.energy) * np.sqrt(self.reference_energy)
        if product == 0:
            return 0.0
        value = float((self.energy + self.reference_energy - self.error_energy) / product)
        return min(1.0, max(-1.0, value))

    @property
    def snr_db(self) -> float:
        """Energy of the reference to that of the difference; infinite for equal values."""
        if self.error_energy == 0:
            return -math.inf if self.max_abs == math.inf else math.inf
        if self.reference_energy == 0:
            return -math.inf
        return float(10 * np.log10(self.reference_energy / self.error_energy))

    @property
    def top1(self) -> Optional[float]:
        """Share of score vectors whose best is the reference's; None without scores."""
        return self.top1_rows / self.score_rows if self.score_rows else None

    @property
    def top5(self) -> Optional[float]:
        """Share of score vectors that have the reference's best among their five best."""
        return self.top5_rows / self.score_rows if self.score_rows else None

    def measures(self) -> Measures:
        """As they are written."""
        many = self.elements or 1
        return Measures(elements=self.elements, max_abs=self.max_abs, mean_abs=self.sum_abs / many,
                        max_rel=self.max_rel, cosine=self.cosine, snr_db=self.snr_db,
                        differing=self.differing / many, top1=self.top1, top5=self.top5,
                        nan=(self.nan, self.reference_nan), inf=(self.inf, self.reference_inf))


class ErrorAccumulator:
    """Compares chunks with their reference, and adds up what it finds in `statistics`."""

    def __init__(self, atol: float, rtol: float) -> None:
        self._atol, self._rtol = atol, rtol
        self._difference, self._ratios = np.empty(CHUNK), np.empty(CHUNK)
        self.statistics = ErrorStatistics()

    def begin(self) -> None:
        """Begins to add up anew."""
        self.statistics = ErrorStatistics()

    def compare(self, values: Array, reference: Array) -> None:
        """Takes in 64-bit floats and their reference, which may be overwritten. NumPy warns of
        infinities and divisions by 0, which are looked after here: its caller turns that off."""
        if len(values) > len(self._difference):  # whole vectors of scores may be longer
            self._difference, self._ratios = np.empty(len(values)), np.empty(len(values))
        difference = np.subtract(values, reference, out=self._difference[:len(values)])
        energies = [np.einsum("i,i->", array, array) for array in (values, reference, difference)]
        # Whatever is not finite, or not held by 64 bits when squared, shows in these sums.
        if all(1e-280 < energy < 1e280 for energy in energies[:2]) and \
                (energies[2] > 1e-280 or not difference.any()):
            self._add_energies(*energies)
            self._add_differences(difference, reference)
        else:
            self._compare_any(values, reference)

    def _compare_any(self, values: Array, reference: Array) -> None:
        """Values that may be NaN, infinite, or too large or too small for their squares."""
        found = self.statistics
        found.nan += int(np.count_nonzero(np.isnan(values)))
        found.reference_nan += int(np.count_nonzero(np.isnan(reference)))
        found.inf += int(np.count_nonzero(np.isinf(values)))
        found.reference_inf += int(np.count_nonzero(np.isinf(reference)))
        finite = np.isfinite(values) & np.isfinite(reference)
        same = (values == reference) | (np.isnan(values) & np.isnan(reference))
        one_sided = int(np.count_nonzero(~finite & ~same))
        if one_sided:
            found.max_abs = found.max_rel = math.inf
            found.beyond = True
        found.elements += int(np.count_nonzero(~finite))
        found.differing += one_sided
        values, reference = values[finite], reference[finite]
        difference = values - reference
        self._add_energies(*(np.square(array, dtype=np.longdouble).sum()
                             for array in (values, reference, difference)))
        self._add_differences(difference, reference)

    def _add_energies(self, energy: Any, reference_energy: Any, error_energy: Any) -> None:
        found = self.statistics
        found.energy += energy
        found.reference_energy += reference_energy
        found.error_energy += error_energy

    def _add_differences(self, difference: Array, reference: Array) -> None:
        """Takes in finite values; both arrays are overwritten."""
        if difference.size == 0:
            return
        found = self.statistics
        found.elements += len(difference)
        differing = int(np.count_nonzero(difference))
        if not differing:
            return
        found.differing += differing
        np.abs(difference, out=difference)
        np.abs(reference, out=reference)
        largest = float(difference.max())
        found.max_abs = max(found.max_abs, largest)
        found.sum_abs += float(difference.sum())
        ratios = np.divide(difference, reference, out=self._ratios[:len(reference)])
        largest_ratio = float(ratios.max())
        if not math.isfinite(largest_ratio):  # references of 0 do not count
            largest_ratio = float(ratios.max(where=reference > 0, initial=0.0))
        found.max_rel = max(found.max_rel, largest_ratio)
        if largest > self._atol and not found.beyond:
            reference *= self._rtol
            reference += self._atol
            found.beyond = bool((difference > reference).any())


def add_scores(values: Array, reference: Array, length: int, found: ErrorStatistics) -> None:
    """Compares rows of `length` scores. The best of a row agrees when it is its only best and one
    of the reference's best, or when both have the same several best; so an output that does not
    tell its classes apart agrees with nothing. Among the five best is one that at most four
    others reach."""
    values, reference = values.reshape(-1, length), reference.reshape(-1, length)
    best = values == np.max(values, axis=1, keepdims=True)  # no place of a row with NaN
    wanted = reference == np.max(reference, axis=1, keepdims=True)
    known = best.any(axis=1) & wanted.any(axis=1)
    single = (np.count_nonzero(best, axis=1) == 1) & (best & wanted).any(axis=1)
    agrees = known & (single | (best == wanted).all(axis=1))
    reached = np.max(np.where(wanted, values, -np.inf), axis=1, keepdims=True)
    among = known & (np.count_nonzero(values >= reached, axis=1) <= 5)
    found.score_rows += len(values)
    found.top1_rows += int(np.count_nonzero(agrees))
    found.top5_rows += int(np.count_nonzero(agrees | among))
