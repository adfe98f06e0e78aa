"""Measures of one layer's error, summed up channel by channel over all inferences."""

from __future__ import annotations

import math
from dataclasses import dataclass, field, fields
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.layer_results import Histogram

Array = np.ndarray[Any, np.dtype[Any]]

BINS = 48
_SAMPLED = 100_000  # values of an inference that a histogram counts
_END = 0.01  # of the range: values so near to its end count as at the end
_CLAMPED = 0.01  # share of values at an end from which on an activation has made that end
# Operators whose last dimension holds the channels, as in the models of texts.
_LAST_AXIS = frozenset("Gemm MatMul LayerNormalization MatMulInteger QLinearMatMul".split())


def layout(shape: list[int], operator: str) -> tuple[int, int, int]:
    """A shape as (outer, channels, inner)."""
    if len(shape) < 2:
        return 1, 1, math.prod(shape)
    axis = len(shape) - 1 if operator in _LAST_AXIS and len(shape) != 4 else 1
    return math.prod(shape[:axis]), shape[axis], math.prod(shape[axis + 1:])


@dataclass
class Range:
    """Where the finite values of one side lie."""
    low: float = math.inf
    high: float = -math.inf
    at_low: int = 0  # values that are `low` exactly
    at_high: int = 0
    count: int = 0

    def add(self, values: Array) -> None:
        """Takes in the values of an inference."""
        values = values[np.isfinite(values)]
        self.count += values.size
        if not values.size:
            return
        low, high = float(values.min()), float(values.max())
        if low <= self.low:
            self.at_low = np.count_nonzero(values == low) + (self.at_low if low == self.low else 0)
        if high >= self.high:
            self.at_high = np.count_nonzero(values == high) + (
                self.at_high if high == self.high else 0)
        self.low, self.high = min(low, self.low), max(high, self.high)

    @property
    def width(self) -> float:
        """From the least to the greatest value."""
        return max(0.0, self.high - self.low)

    @property
    def saturated(self) -> float:
        """Share of the values at one of the ends; 0 for a constant."""
        return (self.at_low + self.at_high) / self.count if self.count and self.width else 0.0

    def floor(self) -> float:
        """What values that are not clamped lie above."""
        return self.low if self.at_low > _CLAMPED * self.count else -math.inf

    def ceiling(self) -> float:
        """What values that are not clamped lie below."""
        return self.high if self.at_high > _CLAMPED * self.count else math.inf


@dataclass
class Sums:
    """Sums for each channel, of values of both sides and of the error, board - reference."""
    count: Array
    error: Array
    reference_energy: Array  # of squares
    board_energy: Array
    error_energy: Array
    product: Array  # of reference and error

    @classmethod
    def over(cls, board: Array, reference: Array, mask: Optional[Array] = None) -> "Sums":
        """Over (outer, channels, inner) values, or those of them that the mask names."""
        error = board - reference
        if mask is None:
            count = np.full(board.shape[1], board.shape[0] * board.shape[2], np.float64)
        else:
            count = mask.sum(axis=(0, 2), dtype=np.float64)
            board, reference, error = (np.where(mask, values, 0)
                                       for values in (board, reference, error))

        def total(one: Array, other: Array) -> Array:
            result: Array = np.einsum("oci,oci->c", one, other, dtype=np.float64, casting="unsafe")
            return result
        return cls(count, error.sum(axis=(0, 2), dtype=np.float64), total(reference, reference),
                   total(board, board), total(error, error), total(reference, error))

    def channel(self, index: int) -> "Sums":
        """Those of one channel."""
        return Sums(*(getattr(self, one.name)[index:index + 1] for one in fields(self)))

    def add(self, other: "Sums") -> None:
        """Takes in those of further values."""
        for one in fields(self):
            setattr(self, one.name, getattr(self, one.name) + getattr(other, one.name))


def snr_db(reference_energy: float, error_energy: float) -> float:
    """In dB; infinite where nothing differs."""
    if error_energy == 0:
        return math.inf
    return 10 * math.log10(reference_energy / error_energy) if reference_energy > 0 else -math.inf


@dataclass
class LayerError:
    """The error of a layer's output on the board, over several inferences."""
    shape: tuple[int, int, int]  # (outer, channels, inner)
    board: Range  # of all values of the board
    reference: Range  # of all values of the PC's, which the reference is like
    all: Optional[Sums] = None
    active: Optional[Sums] = None  # of values that no activation has clamped, on either side
    one_sided: int = 0  # NaN or infinite on one side only, or infinities of both signs
    largest: float = 0.0  # |board - reference|
    # Energy and number of errors where the board's value is at its least or greatest, and the
    # reference beyond.
    end_energy: list[float] = field(default_factory=lambda: [0.0, 0.0])
    end_count: list[int] = field(default_factory=lambda: [0, 0])
    counts: Array = field(default_factory=lambda: np.zeros((2, BINS), np.int64))

    def add(self, board: Array, reference: Array) -> None:
        """Takes in the values of one inference, in 32-bit or 64-bit floats."""
        shape = (-1, *self.shape[1:])  # batches count as outer
        board, reference = self._finite(board.reshape(shape), reference.reshape(shape))
        self.all = _joined(self.all, Sums.over(board, reference))
        free = (board > self.board.floor()) & (board < self.board.ceiling()) & \
            (reference > self.reference.floor()) & (reference < self.reference.ceiling())
        self.active = _joined(self.active, Sums.over(board, reference, free))
        size = np.abs(board - reference)
        self.largest = max(self.largest, float(size.max(initial=0)))
        margin = _END * self.board.width
        self._add_end(0, size, (board <= self.board.low + margin) & (reference < board))
        self._add_end(1, size, (board >= self.board.high - margin) & (reference > board))
        self._count(board, reference)

    def _finite(self, board: Array, reference: Array) -> tuple[Array, Array]:
        """The values of both sides, with 0 on both where one of them is no finite number."""
        both = np.isfinite(board) & np.isfinite(reference)
        if both.all():
            return board, reference
        same = both | (np.isnan(board) & np.isnan(reference)) | (board == reference)
        self.one_sided += int(np.count_nonzero(~same))
        return np.where(both, board, 0), np.where(both, reference, 0)

    def _add_end(self, end: int, size: Array, mask: Array) -> None:
        self.end_count[end] += int(np.count_nonzero(mask))
        self.end_energy[end] += float(np.square(size[mask], dtype=np.float64).sum())

    def _count(self, *sides: Array) -> None:
        """Adds a sample of both sides to their histograms."""
        low, high = self.span
        step = max(1, sides[0].size // _SAMPLED)
        for row, values in zip(self.counts, sides):
            places = (values.ravel()[::step] - low) * (BINS / (high - low or 1))
            row += np.bincount(np.clip(places, 0, BINS - 1).astype(np.int64), minlength=BINS)

    @property
    def span(self) -> tuple[float, float]:
        """From the least to the greatest value of both sides."""
        low, high = min(self.board.low, self.reference.low), max(self.board.high,
                                                                 self.reference.high)
        return (low, high) if low <= high else (0.0, 0.0)

    def histogram(self) -> Histogram:
        """Both sides in bins of equal width."""
        return Histogram(*self.span, *(row.tolist() for row in self.counts))

    # ---- Of all channels together ---------------------------------------------------------------

    @property
    def error_energy(self) -> float:
        """The sum of the squares of all errors."""
        return float(self.all.error_energy.sum()) if self.all else 0.0

    @property
    def snr_db(self) -> float:
        """The signal-to-noise ratio; the least there is when a value is no number on one side."""
        if self.one_sided or not self.all:
            return -math.inf
        return snr_db(float(self.all.reference_energy.sum()), self.error_energy)

    @property
    def cosine(self) -> float:
        """The cosine similarity; 1 for two zero vectors."""
        if self.one_sided or not self.all:
            return 0.0
        error, energies = self.error_energy, [
            float(side.sum()) for side in (self.all.reference_energy, self.all.board_energy)]
        if error == 0:
            return 1.0
        product = 2 * math.sqrt(energies[0]) * math.sqrt(energies[1])
        return min(1.0, max(-1.0, (sum(energies) - error) / product)) if product else 0.0

    @property
    def relative_difference(self) -> float:
        """The largest difference relative to the reference's range."""
        if self.largest == 0:
            return 0.0
        return self.largest / self.reference.width if self.reference.width else math.inf


def _joined(sums: Optional[Sums], more: Sums) -> Sums:
    if sums is None:
        return more
    sums.add(more)
    return sums
