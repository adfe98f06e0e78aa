"""Measures of one layer's error, summed up channel by channel over all inferences."""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.layer_results import Histogram

Array = np.ndarray[Any, np.dtype[Any]]

BINS = 48
_SAMPLED = 100_000  # values of an inference that a histogram counts
_END = 0.01  # of the range: values so near to its end count as at the end
_CLAMPED = 0.01  # share of values at an end from which on an activation has made that end
_SUMMED = ("n", "r", "e", "rr", "bb", "ee", "re")
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
    """Sums for each channel: of the reference r, the output b and the difference e = b - r."""
    n: Array
    r: Array
    e: Array
    rr: Array
    bb: Array
    ee: Array
    re: Array

    @classmethod
    def of(cls, b: Array, r: Array, mask: Optional[Array] = None) -> "Sums":
        """Of (outer, channels, inner) values, or those of them that the mask names."""
        axes = (0, 2)
        e = b - r
        if mask is None:
            count = np.full(b.shape[1], b.shape[0] * b.shape[2], np.float64)
        else:
            count = mask.sum(axis=axes, dtype=np.float64)
            b, r, e = (np.where(mask, values, 0) for values in (b, r, e))

        def total(x: Array, y: Array) -> Array:
            result: Array = np.einsum("oci,oci->c", x, y, dtype=np.float64, casting="unsafe")
            return result
        return cls(count, r.sum(axis=axes, dtype=np.float64), e.sum(axis=axes, dtype=np.float64),
                   total(r, r), total(b, b), total(e, e), total(r, e))

    def channel(self, index: int) -> "Sums":
        """Those of one channel."""
        return Sums(*(getattr(self, name)[index:index + 1] for name in _SUMMED))

    def __iadd__(self, other: "Sums") -> "Sums":
        for name in _SUMMED:
            setattr(self, name, getattr(self, name) + getattr(other, name))
        return self


def snr_db(reference_energy: float, error_energy: float) -> float:
    """In dB; infinite where nothing differs."""
    if error_energy == 0:
        return math.inf
    return 10 * math.log10(reference_energy / error_energy) if reference_energy > 0 else -math.inf


@dataclass
class LayerError:
    """The error of a layer's output b against a reference r, over several inferences."""
    shape: tuple[int, int, int]  # (outer, channels, inner)
    board: Range  # of all values of b
    reference: Range  # of all values of r, or of what is like them
    all: Optional[Sums] = None
    active: Optional[Sums] = None  # of values that no activation has clamped, on either side
    one_sided: int = 0  # NaN or infinite in b or r only, or infinities of both signs
    largest: float = 0.0  # |b - r|
    end_energy: list[float] = field(default_factory=lambda: [0.0, 0.0])  # of e, where b is at its
    end_count: list[int] = field(default_factory=lambda: [0, 0])  # least or greatest and r beyond
    counts: Array = field(default_factory=lambda: np.zeros((2, BINS), np.int64))

    def add(self, b: Array, r: Array) -> None:
        """Takes in the values of one inference, in 32-bit or 64-bit floats."""
        shape = (-1, *self.shape[1:])  # batches count as outer
        b, r = b.reshape(shape), r.reshape(shape)
        both = np.isfinite(b) & np.isfinite(r)
        if not both.all():
            same = both | (np.isnan(b) & np.isnan(r)) | (b == r)
            self.one_sided += int(np.count_nonzero(~same))
            b, r = np.where(both, b, 0), np.where(both, r, 0)
        self.all = _joined(self.all, Sums.of(b, r))
        mask = (b > self.board.floor()) & (b < self.board.ceiling()) & \
            (r > self.reference.floor()) & (r < self.reference.ceiling())
        self.active = _joined(self.active, Sums.of(b, r, mask))
        e = np.abs(b - r)
        self.largest = max(self.largest, float(e.max(initial=0)))
        margin = _END * self.board.width
        self._add_end(0, e, (b <= self.board.low + margin) & (r < b))
        self._add_end(1, e, (b >= self.board.high - margin) & (r > b))
        self._count(b, r)

    def _add_end(self, end: int, e: Array, mask: Array) -> None:
        self.end_count[end] += int(np.count_nonzero(mask))
        self.end_energy[end] += float(np.square(e[mask], dtype=np.float64).sum())

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
        return float(self.all.ee.sum()) if self.all else 0.0

    @property
    def snr_db(self) -> float:
        if self.one_sided or not self.all:
            return -math.inf
        return snr_db(float(self.all.rr.sum()), self.error_energy)

    @property
    def cosine(self) -> float:
        """1 for two zero vectors."""
        if self.one_sided or not self.all:
            return 0.0
        error, rr, bb = self.error_energy, float(self.all.rr.sum()), float(self.all.bb.sum())
        if error == 0:
            return 1.0
        product = 2 * math.sqrt(rr) * math.sqrt(bb)
        return min(1.0, max(-1.0, (rr + bb - error) / product)) if product else 0.0

    @property
    def relative_difference(self) -> float:
        """The largest difference relative to the reference's range."""
        if self.largest == 0:
            return 0.0
        return self.largest / self.reference.width if self.reference.width else math.inf


def _joined(sums: Optional[Sums], more: Sums) -> Sums:
    if sums is None:
        return more
    sums += more
    return sums
