"""Compares the outputs of two sides, run by run, and judges the result."""

import math
from dataclasses import dataclass, field
from typing import Any, Iterable, Iterator, Optional

from quilmrun_tools.artifacts import values
from quilmrun_tools.artifacts.prepared_inputs import Source
from quilmrun_tools.artifacts.run_log import Tensor
from quilmrun_tools.artifacts.values import Reader, Values
from quilmrun_tools.common.parallel_map import ahead_in_processes
from quilmrun_tools.compare.metrics import CHUNK, Meter, Tally, same_bytes, tally_scores
from quilmrun_tools.compare.pairing import Key, Side

_LARGEST_SCORES = 100_000  # a longer vector is no list of classes
_JOB = 32 * CHUNK  # elements that one processor compares at a time
_OPENING = 10_000  # elements that are compared in the time that opening two files takes


@dataclass(frozen=True)
class Limits:
    """What decides; None decides nothing."""
    atol: Optional[float] = None
    rtol: Optional[float] = None
    cosine: Optional[float] = None  # of every run
    top1: Optional[float] = None  # share of all runs

    def passes(self, tally: Tally) -> bool:
        """Whether one output of one run is right. A NaN or an infinity on one side never is."""
        if tally.max_abs == math.inf:
            return False
        if self.atol is not None and tally.beyond:
            return False
        return self.cosine is None or tally.cosine >= self.cosine

    def __str__(self) -> str:
        said = []
        if self.atol is not None:
            said.append(f"|difference| <= {self.atol:g} + {self.rtol:g} * |reference|")
        if self.cosine is not None:
            said.append(f"cosine >= {self.cosine:g}")
        if self.top1 is not None:
            said.append(f"top-1 agreement >= {self.top1:.4g}")
        return ", ".join(said)


@dataclass
class Compared:
    """One output of one run."""
    run: int
    key: Key
    output: Optional[Values]
    reference: Optional[Values]
    tally: Tally = field(default_factory=Tally)
    problem: str = ""  # why the values could not be compared
    passed: bool = False

    def badness(self) -> tuple:
        """Larger is worse: what fails, then where the best score differs, then by noise."""
        agreed = 1.0 if self.tally.top1 is None else self.tally.top1
        return (bool(self.problem), not self.passed, -agreed, -self.tally.snr_db)


@dataclass(frozen=True)
class Part:
    """What is compared in one go: a whole output of a run, or a part of a large one."""
    pair: Compared
    sides: Optional[tuple[Values, Values]]  # output and reference; None: nothing to compare
    last: bool = True  # of the pair

    @property
    def count(self) -> int:
        """Elements."""
        return self.sides[0].count if self.sides else 0


@dataclass
class Comparison:
    """All of it."""
    limits: Limits
    results: list[Compared] = field(default_factory=list)
    totals: dict[Key, Tally] = field(default_factory=dict)
    runs: int = 0

    def failed(self) -> list[Compared]:
        return [result for result in self.results if not result.passed]

    def low_top1(self) -> list[Key]:
        """Outputs whose top-1 agreement is below the limit."""
        return [key for key, tally in self.totals.items() if self.limits.top1 is not None
                and tally.top1 is not None and tally.top1 < self.limits.top1]

    @property
    def passed(self) -> bool:
        return not self.failed() and not self.low_top1()

    def worst(self) -> list[Compared]:
        return sorted(self.results, key=Compared.badness, reverse=True)


class Comparer:
    """Compares outputs, parts of large ones and many small ones on all processors."""

    def __init__(self, limits: Limits, scores: dict[Key, int],
                 rows: dict[Key, Optional[tuple[int, int]]]) -> None:
        """`scores` gives the elements of a score vector; `rows` what explain_sizes() wants."""
        self._limits = limits
        self._scores = scores
        self._rows = rows
        self._meter = Meter(limits.atol or 0.0, limits.rtol or 0.0)
        self._readers = Reader(CHUNK), Reader(CHUNK)

    def compare(self, pairs: Iterable[Compared]) -> Iterator[Compared]:
        """Fills in what is to be said of every output of every run."""
        jobs = [*_jobs(part for pair in pairs for part in self._parts(pair))]
        on_processors = ahead_in_processes if len(jobs) > 1 else map
        for job, tallies in zip(jobs, on_processors(self._tallies, jobs)):
            for part, tally in zip(job, tallies):
                part.pair.tally.add(tally)
                if part.last:
                    part.pair.passed = not part.pair.problem and \
                        self._limits.passes(part.pair.tally)
                    yield part.pair

    def _parts(self, pair: Compared) -> Iterator[Part]:
        ours, theirs = pair.output, pair.reference
        if ours is None or theirs is None:
            pair.problem = "missing in the reference" if theirs is None else "missing"
        elif ours.count != theirs.count or ours.cut_short or theirs.cut_short or not ours.count:
            pair.problem = values.explain_sizes(ours, theirs, self._rows.get(pair.key))
        if pair.problem or ours is None or theirs is None:
            yield Part(pair, None)
            return
        # Score vectors stay whole.
        largest = ours.count if pair.key in self._scores else _JOB
        sides = [*zip(ours.segments(largest), theirs.segments(largest))]
        for at, both in enumerate(sides):
            yield Part(pair, both, at == len(sides) - 1)

    def _tallies(self, job: list[Part]) -> list[Tally]:
        return [self._tally(part) for part in job]

    def _tally(self, part: Part) -> Tally:
        tally = Tally()
        if not part.sides:
            return tally
        _tally_chunks(*part.sides, self._readers, self._meter, tally)
        length = self._scores.get(part.pair.key)
        if length and part.count % length == 0:
            tally_scores(*(reader.whole(side) for reader, side in
                           zip(self._readers, part.sides)), length, tally)
        return tally


def _jobs(parts: Iterable[Part]) -> Iterator[list[Part]]:
    """Parts that one processor compares at a time, about as much work in each job."""
    job: list[Part] = []
    work = 0
    for part in parts:
        job.append(part)
        work += part.count + _OPENING
        if work >= _JOB:
            yield job
            job, work = [], 0
    if job:
        yield job


def _tally_chunks(ours: Values, theirs: Values, readers: tuple[Reader, Reader], meter: Meter,
                  tally: Tally) -> None:
    same_coding = (ours.dtype, ours.coded) == (theirs.dtype, theirs.coded)
    for one, other in zip(readers[0].chunks(ours), readers[1].chunks(theirs)):
        decoded = values.decode(one, ours)
        if same_coding and same_bytes(one, other):
            meter.equal(decoded, tally)
        else:
            meter.compare(decoded, values.decode(other, theirs), tally)


def every_pair(output: Side, reference: Side, keys: dict[Key, Key],
               common: bool) -> Iterator[Compared]:
    """What is to be compared, run by run; with `common`, only what both sides have."""
    back = {theirs: ours for ours, theirs in keys.items()}
    for run in sorted(output.runs.keys() | reference.runs.keys()):
        ours, theirs = output.runs.get(run, {}), reference.runs.get(run, {})
        # An output that only the reference has keeps the reference's name.
        for key in dict.fromkeys([*ours, *(back.get(key, key) for key in theirs)]):
            pair = ours.get(key), theirs.get(keys.get(key, key))
            if all(pair) or not common:
                yield Compared(run, key, *pair)


def row_of(tensor: Optional[Tensor]) -> Optional[tuple[int, int]]:
    """(last dimension, elements from row to row) of an output."""
    bits = {0: 4, 1: 2, 2: 1, 3: 4, 4: 1, 6: 2, 7: 2}
    if tensor is None or not tensor.dims or tensor.type_code not in bits:
        return None
    return tensor.dims[-1], tensor.stride // bits[tensor.type_code]


def score_length(tensor: Optional[Tensor], count: int) -> int:
    """Elements of one score vector: the only dimension above 1 beside the first. 0 for other
    shapes; without a description, everything is one vector."""
    if tensor is None:
        return count
    dims = [dim for dim in (tensor.dims[1:] or tensor.dims) if dim != 1]
    return dims[0] if len(dims) == 1 and 1 < dims[0] <= _LARGEST_SCORES else 0


def to_json(comparison: Comparison, output: Side, reference: Side, notes: list[str],
            sources: dict[int, list[Source]]) -> dict[str, Any]:
    """comparison.json"""
    limits = comparison.limits
    return {
        "format": "quilmrun-compare", "version": 1, "output": output.path,
        "reference": reference.path, "verdict": "pass" if comparison.passed else "fail",
        "limits": {"atol": limits.atol, "rtol": limits.rtol, "cosine": limits.cosine,
                   "top1": limits.top1},
        "notes": notes,
        "left_out": {"output": output.left_out, "reference": reference.left_out},
        "outputs": [{
            "name": key[0], "duplicate": key[1], "type": type_of(key, output),
            "runs": sum(1 for one in comparison.results if one.key == key and not one.problem),
            **tally.to_dict(),
            "pass": key not in comparison.low_top1() and
                    all(one.passed for one in comparison.results if one.key == key),
        } for key, tally in comparison.totals.items()],
        "runs": [{
            "index": one.run, "sources": [source.path for source in sources.get(one.run, [])],
            "output": one.key[0], "duplicate": one.key[1], **one.tally.to_dict(),
            "file": str(one.output.path) if one.output else None,
            "reference_file": str(one.reference.path) if one.reference else None,
            "problem": one.problem, "pass": one.passed,
        } for one in comparison.worst()],
    }


def type_of(key: Key, side: Side) -> str:
    """An output's type as the log names it, or as its values were read."""
    tensor = side.tensor(key)
    if tensor:
        return tensor.type_name
    return next(run[key].coded for run in side.runs.values() if key in run)
