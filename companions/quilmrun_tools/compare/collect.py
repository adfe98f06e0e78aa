"""Adds up what was found of every output of every inference, and judges it. Of single inferences
only the worst are kept, so that memory does not grow with their number."""

import heapq
import math
from dataclasses import asdict
from typing import Callable, Optional

from quilmrun_tools.artifacts.comparison import (Comparison, LeftOutOfBoth, Limits, OutputCase,
                                                 OutputSummary)
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_outputs import text
from quilmrun_tools.compare.comparer import Compared
from quilmrun_tools.compare.metrics import ErrorStatistics

MOST_FAILURES = 1000  # inferences that comparison.json lists, unless all are asked for
_MOST_DIFFERENCES = 4096  # points of the line of differences

Severity = tuple[bool, bool, float, float, int]
SourcesOf = Callable[[int], list[str]]


class _Worst:
    """The worst of many, at most so many; None keeps all."""

    def __init__(self, most: Optional[int]) -> None:
        self._most = most
        self._heap: list[tuple[Severity, Compared]] = []

    def add(self, severity: Severity, compared: Compared) -> None:
        """Takes in one more, whose severity differs from all others' by its last part."""
        if self._most is None or len(self._heap) < self._most:
            heapq.heappush(self._heap, (severity, compared))
        elif self._heap:
            heapq.heappushpop(self._heap, (severity, compared))

    def sorted(self) -> list[Compared]:
        """Worst first."""
        return [compared for _, compared in sorted(self._heap, reverse=True)]


class Collector:
    """All of a comparison, as it goes on."""

    def __init__(self, limits: Limits, types: dict[Key, str], others: int, all_runs: bool) -> None:
        """`types` are shown; `others` is how many inferences are kept that do not fail."""
        self._limits, self._types = limits, types
        self._totals: dict[Key, ErrorStatistics] = {}
        self._runs: dict[Key, int] = {}
        self._failed: dict[Key, int] = {}
        self._problems: dict[Key, int] = {}
        self._failures = _Worst(None if all_runs else MOST_FAILURES)
        self._others = _Worst(None if all_runs else others)
        self._count = 0
        self._inferences = 0
        self._last_inference: Optional[int] = None
        self._differences = _Differences()

    def passes(self, found: ErrorStatistics) -> bool:
        """Whether one output of one inference is right. A NaN or an infinity on one side only never
        is."""
        if found.max_abs == math.inf:
            return False
        if self._limits.atol is not None and found.beyond:
            return False
        return self._limits.cosine is None or found.cosine >= self._limits.cosine

    def add(self, compared: Compared) -> None:
        """Takes in one output of one inference; those of an inference come one after another."""
        key, found = compared.pair.key, compared.statistics
        passed = not compared.problem and self.passes(found)
        self._count += 1
        (self._others if passed else self._failures).add(
            _severity(compared, passed, self._count), compared)
        if compared.problem:
            self._problems[key] = self._problems.get(key, 0) + 1
            return
        self._runs[key] = self._runs.get(key, 0) + 1
        self._failed[key] = self._failed.get(key, 0) + (not passed)
        self._totals.setdefault(key, ErrorStatistics()).add(found)
        self._inferences += compared.pair.run != self._last_inference
        self._last_inference = compared.pair.run
        self._differences.add(compared.pair.run, found.max_abs)

    def result(self, output: str, reference: str, reasons: list[str], notes: list[str],
               left_out: LeftOutOfBoth, sources_of: SourcesOf) -> Comparison:
        """Everything, judged; `reasons` are further ones that make it fail."""
        failed, missing = sum(self._failed.values()), sum(self._problems.values())
        reasons = [*self._reasons(failed, missing), *reasons]
        listed = [*self._failures.sorted(), *self._others.sorted()]
        return Comparison(
            output=output, reference=reference, verdict="fail" if reasons else "pass",
            reasons=reasons, limits=self._limits, notes=notes, left_out=left_out,
            outputs=[self._summary(key) for key in self._totals], inferences=self._inferences,
            compared=sum(self._runs.values()), failed=failed, not_compared=missing,
            runs=[self._case(compared, sources_of(compared.pair.run)) for compared in listed],
            differences=self._differences.points())

    def _reasons(self, failed: int, missing: int) -> list[str]:
        reasons = []
        if failed:
            reasons.append(f"{failed} of {sum(self._runs.values())} outputs beyond the limits")
        if missing:
            reasons.append(f"{missing} could not be compared")
        if not self._runs and not missing:
            reasons.append("nothing was compared")
        return reasons + [f"{text(key)}: top-1 agreement {found.top1:.1%}"
                          for key, found in self._totals.items() if self._low_top1(found)]

    def _low_top1(self, found: ErrorStatistics) -> bool:
        return self._limits.top1 is not None and found.top1 is not None and \
            found.top1 < self._limits.top1

    def _summary(self, key: Key) -> OutputSummary:
        found = self._totals[key]
        passed = not self._failed[key] and not self._problems.get(key) and \
            not self._low_top1(found)
        return OutputSummary(**asdict(found.measures()), name=key[0], duplicate=key[1],
                             type=self._types[key], runs=self._runs[key],
                             failed=self._failed[key], passed=passed)

    def _case(self, compared: Compared, sources: list[str]) -> OutputCase:
        pair = compared.pair
        return OutputCase(**asdict(compared.statistics.measures()), index=pair.run,
                          output=pair.key[0], duplicate=pair.key[1], file=pair.output,
                          reference_file=pair.reference, problem=compared.problem, sources=sources,
                          passed=not compared.problem and self.passes(compared.statistics))


def _severity(compared: Compared, passed: bool, count: int) -> Severity:
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

    def add(self, run: int, difference: float) -> None:
        """Takes in an output of an inference."""
        if run != self._last_run:
            self._last_run, self._in_last = run, self._in_last + 1
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
