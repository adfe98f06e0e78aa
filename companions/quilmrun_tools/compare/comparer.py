"""Compares one output of one inference with its reference, chunk by chunk."""

from dataclasses import dataclass, field
from typing import Any, Iterator, Optional

import numpy as np

from quilmrun_tools.artifacts.comparison import Limits
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.artifacts.values import Reader, Values
from quilmrun_tools.compare.dead_outputs import DeadOutputs
from quilmrun_tools.compare.frames import FrameCut
from quilmrun_tools.compare.metrics import CHUNK, ErrorAccumulator, ErrorStatistics, add_scores
from quilmrun_tools.compare.sides import Pair
from quilmrun_tools.compare.sizes import explain_sizes

Array = np.ndarray[Any, Any]

_LARGEST_SCORES = 100_000  # a longer vector is no list of classes


@dataclass(frozen=True)
class ComparedOutput:
    """What there is to say of one output of one inference."""
    pair: Pair
    statistics: ErrorStatistics
    problem: str = ""  # why the values could not be compared


@dataclass(frozen=True)
class OutputFacts:
    """What is known of each output before its values are read."""
    tensors: dict[Key, Optional[Tensor]] = field(default_factory=dict)
    scores: dict[Key, int] = field(default_factory=dict)  # elements of a vector of scores
    frames: dict[Key, FrameCut] = field(default_factory=dict)


class Comparer:  # pylint: disable=too-few-public-methods  # it keeps its buffers
    """Compares outputs in buffers that are used again and again."""

    def __init__(self, limits: Limits, plan: OutputFacts) -> None:
        self._plan = plan
        self._accumulator = ErrorAccumulator(limits.atol or 0.0, limits.rtol or 0.0)
        self._readers = Reader(CHUNK), Reader(CHUNK)
        self.dead = DeadOutputs()

    def compare(self, pair: Pair) -> ComparedOutput:
        """Reads and compares an output."""
        ours, theirs = pair.output, pair.reference
        if ours is None or theirs is None:
            problem = "missing in the reference" if ours else "missing"
            return ComparedOutput(pair, ErrorStatistics(), problem)
        problem = explain_sizes(ours, theirs, self._plan.tensors.get(pair.key))
        if problem:
            return ComparedOutput(pair, ErrorStatistics(), problem)
        accumulator = self._accumulator
        accumulator.begin()
        length = self._plan.scores.get(pair.key, 0)
        length = length if length and ours.count % length == 0 else 0
        self.dead.begin()
        for one, other in self._chunks(pair.run, pair.key, ours, theirs, length):
            self.dead.watch(one, other)
            if length and len(one) % length == 0:
                add_scores(one, other, length, accumulator.statistics)
            accumulator.compare(one, other)
        self.dead.end(pair.key, accumulator.statistics)
        return ComparedOutput(pair, accumulator.statistics)

    def _chunks(self, run: int, key: Key, ours: Values, theirs: Values,
                length: int) -> Iterator[tuple[Array, Array]]:
        """The numbers of both, in chunks of whole vectors of scores."""
        cut = self._plan.frames.get(key)
        if cut and cut.shortens(run, ours.count):
            yield (cut.kept(run, self._readers[0].whole(ours)),
                   cut.kept(run, self._readers[1].whole(theirs)))
            return
        step = ours.count if not length else max(CHUNK // length, 1) * length
        for start in range(0, ours.count, step):
            count = min(step, ours.count - start)
            parts = [values.section(start, count) for values in (ours, theirs)]
            if count > CHUNK and length:
                yield self._readers[0].whole(parts[0]), self._readers[1].whole(parts[1])
            else:
                yield from zip(*(reader.numbers(part)
                                 for reader, part in zip(self._readers, parts)))


def score_length(tensor: Optional[Tensor], count: int) -> int:
    """Elements of one score vector: the only dimension above 1 beside the first. 0 for other
    shapes; without a description, everything is one vector."""
    if tensor is None:
        return count
    dims = [dim for dim in (tensor.dims[1:] or tensor.dims) if dim != 1]
    return dims[0] if len(dims) == 1 and 1 < dims[0] <= _LARGEST_SCORES else 0
