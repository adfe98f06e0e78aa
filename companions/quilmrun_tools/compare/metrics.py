"""How far values are from their reference, in one pass over chunks that fit into the cache.

Chunks that are equal byte by byte cost little more than reading them. Sums are kept in 64 bits;
within a chunk, every 512th of its 32-bit floats are summed as such. What 32 bits cannot hold, and
chunks with NaN or infinity, are done again in 64 bits.
"""

import math
from dataclasses import dataclass, field, fields
from typing import Any, Optional, Sequence

import numpy as np

CHUNK = 1 << 16  # elements: few enough for the cache, enough to outweigh NumPy's own work
_COLUMNS = 512  # so many sums side by side, which NumPy adds to faster than to one


@dataclass
class Tally:
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
    energy: float = 0.0  # sum of squares of the output
    reference_energy: float = 0.0
    error_energy: float = 0.0
    nan: list[int] = field(default_factory=lambda: [0, 0])  # output, reference
    inf: list[int] = field(default_factory=lambda: [0, 0])
    score_rows: int = 0
    top1_rows: int = 0
    top5_rows: int = 0

    _LARGEST = ("max_abs", "max_rel", "beyond")

    def add(self, other: "Tally") -> None:
        """Takes in the measures of further values."""
        for item in fields(self):
            mine, more = getattr(self, item.name), getattr(other, item.name)
            if isinstance(mine, list):
                setattr(self, item.name, [a + b for a, b in zip(mine, more)])
            else:
                setattr(self, item.name,
                        max(mine, more) if item.name in self._LARGEST else mine + more)

    @property
    def mean_abs(self) -> float:
        return self.sum_abs / self.elements if self.elements else 0.0

    @property
    def cosine(self) -> float:
        """Cosine similarity; 1 for two zero vectors. By the energies of both and of their
        difference, so that nearly equal vectors lose no digits."""
        if self.error_energy == 0:
            return 1.0
        product = 2 * math.sqrt(self.energy) * math.sqrt(self.reference_energy)
        if product == 0:
            return 0.0
        value = (self.energy + self.reference_energy - self.error_energy) / product
        return min(1.0, max(-1.0, value))

    @property
    def snr_db(self) -> float:
        """Energy of the reference to that of the difference; infinite for equal values."""
        if self.error_energy == 0:
            return -math.inf if self.max_abs == math.inf else math.inf
        if self.reference_energy == 0:
            return -math.inf
        return 10 * math.log10(self.reference_energy / self.error_energy)

    @property
    def top1(self) -> Optional[float]:
        """Share of score vectors whose best is the reference's; None without scores."""
        return self.top1_rows / self.score_rows if self.score_rows else None

    @property
    def top5(self) -> Optional[float]:
        """Share of score vectors that have the reference's best among their five best."""
        return self.top5_rows / self.score_rows if self.score_rows else None

    def to_dict(self) -> dict[str, Any]:
        """For JSON, which knows no infinity: "inf" and "-inf" are texts."""
        values = {"elements": self.elements, "max_abs": self.max_abs, "mean_abs": self.mean_abs,
                  "max_rel": self.max_rel, "cosine": self.cosine, "snr_db": self.snr_db,
                  "differing": self.differing / self.elements if self.elements else 0.0,
                  "top1": self.top1, "top5": self.top5, "nan": self.nan, "inf": self.inf}
        return {key: str(value) if isinstance(value, float) and math.isinf(value) else value
                for key, value in values.items()}


class Meter:
    """Compares chunks in buffers that are used again and again."""

    def __init__(self, atol: float, rtol: float) -> None:
        self._atol, self._rtol = atol, rtol
        self._difference = np.empty(CHUNK, np.float32)
        self._size = np.empty(CHUNK, np.float32)
        self._sums_of_columns = np.empty((4, _COLUMNS), np.float32)
        self._differs = np.empty(CHUNK, np.bool_)

    def equal(self, values: np.ndarray, tally: Tally) -> None:
        """Takes in decoded values that are equal to their reference, bit by bit."""
        if values.dtype != np.float32:
            self._exact(values, values, tally)
            return
        with np.errstate(all="ignore"):
            energy, = self._sums([values])
        if not _usable(energy, values):
            self._exact(values, values, tally)
            return
        tally.elements += len(values)
        tally.energy += energy
        tally.reference_energy += energy

    def compare(self, values: np.ndarray, reference: np.ndarray, tally: Tally) -> None:
        """Takes in decoded values and their reference."""
        with np.errstate(all="ignore"):
            if values.dtype != np.float32 or reference.dtype != np.float32 or \
                    not self._fast(values, reference, tally):
                self._exact(values, reference, tally)

    def _fast(self, values: np.ndarray, reference: np.ndarray, tally: Tally) -> bool:
        """In 32 bits; returns False, with nothing taken in, when these do not suffice."""
        difference = self._difference[:len(values)]
        np.subtract(values, reference, out=difference)
        np.abs(difference, out=difference)
        arrays = values, reference, difference
        *energies, sum_abs = self._sums(arrays, difference)
        if not all(map(_usable, energies, arrays)):
            return False
        max_abs = float(np.maximum.reduce(difference))
        tally.elements += len(values)
        # In two steps, which is faster than counting in an array of floats.
        differs = np.not_equal(difference, 0, out=self._differs[:len(values)])
        tally.differing += int(np.count_nonzero(differs))
        tally.max_abs = max(tally.max_abs, max_abs)
        tally.sum_abs += sum_abs
        tally.energy += energies[0]
        tally.reference_energy += energies[1]
        tally.error_energy += energies[2]
        if max_abs > self._atol and not tally.beyond:  # otherwise it is known already
            tally.beyond = self._exceeds(difference, reference)
        tally.max_rel = max(tally.max_rel, self._largest_ratio(difference, reference))
        return True

    def _exceeds(self, difference: np.ndarray, reference: np.ndarray) -> bool:
        size = np.abs(reference, out=self._size[:len(reference)])
        np.multiply(size, np.float32(self._rtol), out=size)
        return float(np.subtract(difference, size, out=size).max()) > self._atol

    def _largest_ratio(self, difference: np.ndarray, reference: np.ndarray) -> float:
        """The largest difference / |reference|; `difference` is overwritten."""
        ratio = np.divide(difference, reference, out=self._size[:len(reference)])
        largest = _farthest(ratio)
        if not math.isfinite(largest):  # references of 0, which become NaN and do not count
            np.multiply(difference, reference != 0, out=difference)
            largest = _farthest(np.divide(difference, reference, out=ratio))
        return 0.0 if math.isnan(largest) else largest

    def _sums(self, squared: Sequence[np.ndarray], *plain: np.ndarray) -> list[float]:
        """The sum of squares of each, then the sum of each of the others."""
        whole = len(squared[0]) // _COLUMNS * _COLUMNS
        sums = self._sums_of_columns[:len(squared) + len(plain)]
        for array, out in zip(squared, sums):
            table = array[:whole].reshape(-1, _COLUMNS)
            np.einsum("ij,ij->j", table, table, out=out)
        for array, out in zip(plain, sums[len(squared):]):
            np.add.reduce(array[:whole].reshape(-1, _COLUMNS), axis=0, out=out)
        result = np.add.reduce(sums, axis=1, dtype=np.float64)
        if whole < len(squared[0]):
            result += [*(np.square(array[whole:], dtype=np.float64).sum() for array in squared),
                       *(array[whole:].sum(dtype=np.float64) for array in plain)]
        return result.tolist()

    def _exact(self, values: np.ndarray, reference: np.ndarray, tally: Tally) -> None:
        """In 64 bits, with NaN and infinity counted and left out of the sums."""
        values, reference = values.astype(np.float64), reference.astype(np.float64)
        for side, array in enumerate((values, reference)):
            tally.nan[side] += int(np.count_nonzero(np.isnan(array)))
            tally.inf[side] += int(np.count_nonzero(np.isinf(array)))
        same = (values == reference) | (np.isnan(values) & np.isnan(reference))
        tally.elements += len(values)
        tally.differing += int(np.count_nonzero(~same))
        finite = np.isfinite(values) & np.isfinite(reference)
        if np.any(~finite & ~same):
            tally.max_abs = tally.max_rel = math.inf
            tally.beyond = True
        values, reference = values[finite], reference[finite]
        if not len(values):
            return
        difference, size = np.abs(values - reference), np.abs(reference)
        tally.max_abs = max(tally.max_abs, float(difference.max()))
        tally.sum_abs += float(difference.sum())
        known = size > 0
        if known.any():
            tally.max_rel = max(tally.max_rel, float((difference[known] / size[known]).max()))
        tally.beyond |= bool(np.any(difference > self._atol + self._rtol * size))
        tally.energy += float(np.square(values).sum())
        tally.reference_energy += float(np.square(reference).sum())
        tally.error_energy += float(np.square(difference).sum())


def _farthest(array: np.ndarray) -> float:
    """The largest magnitude, without NaN."""
    return float(max(np.fmax.reduce(array), -np.fmin.reduce(array)))


def same_bytes(one: np.ndarray, other: np.ndarray) -> bool:
    """Whether two chunks of one type are equal bit by bit; usually known from the first bytes."""
    if one.nbytes % 8:
        return bool(np.array_equal(one.view(np.uint8), other.view(np.uint8)))
    ours, theirs = one.view(np.uint64), other.view(np.uint64)
    return bool(np.array_equal(ours[:64], theirs[:64]) and np.array_equal(ours, theirs))


def _usable(energy: float, array: np.ndarray) -> bool:
    """Whether the squares of 32-bit floats neither overflowed nor vanished."""
    return 1e-20 < energy < math.inf or (energy == 0 and not array.any())


def tally_scores(values: np.ndarray, reference: np.ndarray, length: int, tally: Tally) -> None:
    """Compares rows of `length` scores: is the reference's best the best here, or among five?
    Of equal scores all count as the best."""
    values, reference = values.reshape(-1, length), reference.reshape(-1, length)
    best = np.argmax(reference, axis=1)[:, None]
    chosen = np.take_along_axis(values, best, axis=1)
    better = np.count_nonzero(values > chosen, axis=1)
    known = ~(np.isnan(chosen) | np.isnan(np.take_along_axis(reference, best, axis=1)))[:, 0]
    tally.score_rows += len(values)
    tally.top1_rows += int(np.count_nonzero(known & (better < 1)))
    tally.top5_rows += int(np.count_nonzero(known & (better < 5)))
