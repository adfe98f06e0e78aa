"""Adds up what was found of every output of every inference, and judges it. Of single inferences
only the worst are kept, so that memory does not grow with their number."""

import heapq
import math
from dataclasses import asdict, dataclass, field
from typing import Callable, Optional

from quilmrun_tools.artifacts.comparison import (Comparison, LeftOutOfBoth, Limits, OutputCase,
                                                 OutputSummary)
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_outputs import text
from quilmrun_tools.compare.comparer import ComparedOutput
from quilmrun_tools.compare.metrics import ErrorStatistics

MOST_FAILURES = 1000  # inferences that comparison.json lists, unless all are asked for
_MOST_DIFFERENCES = 4096  # points of the line of differences

Severity = tuple[bool, bool, float, float, int]
SourcesOf = Callable[[int], list[str]]


class _Worst:
    """The worst of many, at most so many; None keeps all."""

    def __init__(self, most: Optional[int]) -> None:
        self._most = most
        self._heap: list[tuple[Severity, ComparedOutput]] = []

    def add(self, severity: Severity, compared: ComparedOutput) -> None:
        """Takes in one more, whose severity differs from all others' by its last part."""
        if self._most is None or len(self._heap) < self._most:
            heapq.heappush(self._heap, (severity, compared))
        elif self._heap:
            heapq.heappushpop(self._heap, (severity, compared))

    def sorted(self) -> list[ComparedOutput]:
        """Worst first."""
        return [compared for _, compared in sorted(self._heap, reverse=True)]


@dataclass
class _OutputTotals:
    """One output over all inferences."""
    type: str
    found: ErrorStatistics = field(default_factory=ErrorStatistics)
    runs: int = 0  # inferences compared
    failed: int = 0  # of these, beyond the limits
    problems: int = 0  # inferences that could not be compared


@dataclass(frozen=True)
class Circumstances:
    """What there is to say of a comparison beside its figures."""
    output: str  # as the user named it
    reference: str
    reasons: list[str]  # that make it fail, whatever the figures
    notes: list[str]
    left_out: LeftOutOfBoth


class Collector:
    """All of a comparison, as it goes on."""

    def __init__(self, limits: Limits, types: dict[Key, str], others: int, all_runs: bool) -> None:
        """`types` are shown; `others` is how many inferences are kept that do not fail."""
        self._limits, self._types = limits, types
        self._totals: dict[Key, _OutputTotals] = {}
        self._failures = _Worst(None if all_runs else MOST_FAILURES)
        self._others = _Worst(None if all_runs else others)
        self._count = 0  # of all that was taken in
        self._differences = _Differences()

    def passes(self, found: ErrorStatistics) -> bool:
        """Whether one output of one inference is right. A NaN or an infinity on one side only never
        is."""
        if found.max_abs == math.inf:
            return False
        if self._limits.atol is not None and found.beyond:
            return False
        return self._limits.cosine is None or found.cosine >= self._limits.cosine

    def add(self, compared: ComparedOutput) -> None:
        """Takes in one output of one inference; those of an inference come one after another."""
        key, found = compared.pair.key, compared.statistics
        passed = not compared.problem and self.passes(found)
        self._count += 1
        (self._others if passed else self._failures).add(
            _severity(compared, passed, self._count), compared)
        totals = self._totals.setdefault(key, _OutputTotals(self._types.get(key, "")))
        if compared.problem:
            totals.problems += 1
            return
        totals.runs += 1
        totals.failed += not passed
        totals.found.add(found)
        self._differences.add(compared.pair.run, found.max_abs)

    def result(self, about: Circumstances, sources_of: SourcesOf) -> Comparison:
        """Everything, judged."""
        compared, failed, problems = (
            sum(getattr(totals, name) for totals in self._totals.values())
            for name in ("runs", "failed", "problems"))
        reasons = [*self._reasons(compared, failed, problems), *about.reasons]
        listed = [*self._failures.sorted(), *self._others.sorted()]
        return Comparison(
            output=about.output, reference=about.reference, verdict="fail" if reasons else "pass",
            reasons=reasons, limits=self._limits, notes=about.notes, left_out=about.left_out,
            outputs=[self._summary(key, totals) for key, totals in self._totals.items()
                     if totals.runs],
            inferences=self._differences.inferences, compared=compared, failed=failed,
            not_compared=problems, differences=self._differences.points(),
            runs=[self._case(one, sources_of(one.pair.run)) for one in listed])

    def _reasons(self, compared: int, failed: int, problems: int) -> list[str]:
        reasons = []
        if failed:
            reasons.append(f"{failed} of {compared} outputs beyond the limits")
        if problems:
            reasons.append(f"{problems} could not be compared")
        if not compared and not problems:
            reasons.append("nothing was compared")
        return reasons + [f"{text(key)}: top-1 agreement {totals.found.top1:.1%}"
                          for key, totals in self._totals.items() if self._low_top1(totals.found)]

    def _low_top1(self, found: ErrorStatistics) -> bool:
        return self._limits.top1 is not None and found.top1 is not None and \
            found.top1 < self._limits.top1

    def _summary(self, key: Key, totals: _OutputTotals) -> OutputSummary:
        passed = not totals.failed and not totals.problems and not self._low_top1(totals.found)
        return OutputSummary(**asdict(totals.found.measures()), name=key[0], duplicate=key[1],
                             type=totals.type, runs=totals.runs, failed=totals.failed,
                             passed=passed)

    def _case(self, compared: ComparedOutput, sources: list[str]) -> OutputCase:
        pair = compared.pair
        return OutputCase(**asdict(compared.statistics.measures()), index=pair.run,
                          output=pair.key[0], duplicate=pair.key[1], file=pair.output,
                          reference_file=pair.reference, problem=compared.problem, sources=sources,
                          passed=not compared.problem and self.passes(compared.statistics))


def _severity(compared: ComparedOutput, passed: bool, count: int) -> Severity:
    """Larger is worse: what fails, then where the best score differs, then by noise; of equal ones
    the earlier."""
    agreed = 1.0 if compared.statistics.top1 is None else compared.statistics.top1
    return bool(compared.problem), not passed, -agreed, -compared.statistics.snr_db, -count


class _Differences:
    """The largest difference by inference; when there are many, of several neighbours."""

    def __init__(self) -> None:
        self._points: list[tuple[int, float]] = []
        self._neighbours = 1
        self._in_last = 0
        self._last_run: Optional[int] = None
        self.inferences = 0

    def add(self, run: int, difference: float) -> None:
        """Takes in an output of an inference."""
        if run != self._last_run:
            self._last_run, self._in_last = run, self._in_last + 1
            self.inferences += 1
            if self._in_last > self._neighbours or not self._points:
                self._in_last = 1
                self._points.append((run, 0.0))
        if difference >= self._points[-1][1]:
            self._points[-1] = run, difference
        if len(self._points) > _MOST_DIFFERENCES:
            pairs = zip(self._points[::2], self._points[1::2])
            rest = self._points[len(self._points) // 2 * 2:]
            self._points = [max(pair, key=lambda point: point[1]) for pair in pairs] + rest
            self._in_last += self._neighbours * (not rest)
            self._neighbours *= 2

    def points(self) -> list[tuple[int, float]]:
        """(inference, largest difference)"""
        return self._points
