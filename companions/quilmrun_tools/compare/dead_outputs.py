"""Finds outputs that say nothing: of one value only, the same in all inferences, or NaN."""

import zlib
from dataclasses import dataclass
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_outputs import text
from quilmrun_tools.compare.metrics import ErrorStatistics

Checksum = tuple[int, float]
_SAMPLE = 1000  # values of each chunk
_FEW = 2  # from so many inferences on, it says something that all are the same


@dataclass
class _Signs:
    """What has been true so far of one output, over all inferences."""
    runs: int = 0
    first: Optional[Checksum] = None  # of the first inference
    first_reference: Optional[Checksum] = None
    same: bool = True
    reference_same: bool = True
    constant: bool = True  # every inference has one value only, of several elements
    nan: bool = True


class DeadOutputs:
    """Watches the values of all outputs as they are compared."""

    def __init__(self) -> None:
        self._signs: dict[Key, _Signs] = {}
        self._now = _Watched()

    def begin(self) -> None:
        """An output of an inference begins."""
        self._now = _Watched()

    def watch(self, values: "np.ndarray[Any, Any]", reference: "np.ndarray[Any, Any]") -> None:
        """Takes in a chunk of the output, and of its reference."""
        self._now.watch(values, reference)

    def end(self, key: Key, found: ErrorStatistics) -> None:
        """The output, of this name, ends, with these statistics."""
        signs, now = self._signs.setdefault(key, _Signs()), self._now
        signs.runs += 1
        values = now.checksum, float(found.energy)
        reference = now.reference_checksum, float(found.reference_energy)
        signs.first, signs.first_reference = signs.first or values, \
            signs.first_reference or reference
        signs.same = signs.same and signs.first == values
        signs.reference_same = signs.reference_same and signs.first_reference == reference
        signs.constant = signs.constant and now.constant and now.count > 1
        signs.nan = signs.nan and now.nan

    def notes(self) -> list[str]:
        """A line for every output that says nothing."""
        return [f"{text(key)}: {said}" for key, signs in self._signs.items()
                if (said := self._said(signs))]

    @staticmethod
    def _said(signs: _Signs) -> str:
        if signs.nan:
            return "every value is NaN"
        if signs.constant:
            return "the output has one and the same value everywhere" + (
                "" if signs.runs == 1 else " in each inference")
        if signs.same and not signs.reference_same and signs.runs >= _FEW:
            return f"the output is the same in all {signs.runs} inferences, the reference is not"
        return ""


class _Watched:  # pylint: disable=too-few-public-methods  # it sums up over chunks
    """One output of one inference."""

    def __init__(self) -> None:
        self.count = 0
        self.checksum, self.reference_checksum = 0, 0
        self.constant = self.nan = True
        self._value = 0.0

    def watch(self, values: "np.ndarray[Any, Any]", reference: "np.ndarray[Any, Any]") -> None:
        """Takes in a chunk."""
        if not self.count:
            self._value = float(values[0])
        self.count += len(values)
        # Checksums of all would take as long as comparing: some of each chunk, and the sum of all
        # squares, will do.
        self.checksum = zlib.crc32(values[:_SAMPLE].tobytes(), self.checksum)
        self.reference_checksum = zlib.crc32(reference[:_SAMPLE].tobytes(), self.reference_checksum)
        # Usually the last value tells already.
        self.constant = self.constant and values[-1] == self._value and \
            bool((values == self._value).all())
        self.nan = self.nan and bool(np.isnan(values[-1])) and bool(np.isnan(values).all())
