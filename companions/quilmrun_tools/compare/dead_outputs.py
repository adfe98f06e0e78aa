"""Finds outputs that say nothing: of one value only, the same in all inferences, or NaN."""

import zlib
from dataclasses import dataclass
from typing import Any, Optional

import numpy as np

from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_outputs import text

Checksum = tuple[int, float]
_NOTHING: Checksum = (0, 0.0)
_FEW = 2  # from so many inferences on, it says something that all are the same


@dataclass
class _Signs:
    """What has been true so far of one output, over all inferences."""
    runs: int = 0
    first: Optional[Checksum] = None  # the outputs of the first inference, as checksums
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

    def end(self, key: Key) -> None:
        """The output, of this name, ends."""
        signs, now = self._signs.setdefault(key, _Signs()), self._now
        signs.runs += 1
        signs.first = signs.first or now.checksum
        signs.first_reference = signs.first_reference or now.reference_checksum
        signs.same = signs.same and signs.first == now.checksum
        signs.reference_same = signs.reference_same and \
            signs.first_reference == now.reference_checksum
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


class _Watched:
    """One output of one inference."""

    def __init__(self) -> None:
        self.count = 0
        self.checksum, self.reference_checksum = _NOTHING, _NOTHING
        self.constant = self.nan = True
        self._value = 0.0

    def watch(self, values: "np.ndarray[Any, Any]", reference: "np.ndarray[Any, Any]") -> None:
        """Takes in a chunk."""
        if not self.count:
            self._value = float(values[0])
        self.count += len(values)
        # Whole outputs would take as long as comparing them: some of each chunk will do.
        self.checksum = _more(self.checksum, values)
        self.reference_checksum = _more(self.reference_checksum, reference)
        # Usually the last value tells already.
        self.constant = self.constant and values[-1] == self._value and \
            bool((values == self._value).all())
        self.nan = self.nan and bool(np.isnan(values[-1])) and bool(np.isnan(values).all())


def _more(checksum: Checksum, values: "np.ndarray[Any, Any]") -> Checksum:
    """The checksum of a thousand values of each chunk, and the sum of all."""
    return zlib.crc32(values[:1000].tobytes(), checksum[0]), checksum[1] + float(values.sum())
