"""The one line that a report begins with: did the run succeed, and are its outputs right?"""

from __future__ import annotations

from dataclasses import dataclass

from quilmrun_tools.artifacts.comparison import Comparison, Limits
from quilmrun_tools.common.units import percent
from quilmrun_tools.report.run import Run

PASS, FAIL, OPEN = "pass", "fail", "open"

@dataclass(frozen=True)
class Verdict:
    """What a run comes to. `state` is pass, fail, or open when nothing tells."""

    state: str
    sentences: list[str]

    @property
    def word(self) -> str:
        return {PASS: "Pass", FAIL: "Fail", OPEN: "No verdict"}[self.state]

    @property
    def text(self) -> str:
        return " ".join(self.sentences)


def judge(run: Run) -> Verdict:
    """Fails when the run failed or its outputs exceed the limits of the comparison."""
    parts = [_course(run), _outputs(run)]
    states = [state for state, _ in parts]
    overall = FAIL if FAIL in states else PASS if PASS in states else OPEN
    return Verdict(overall, [sentence for _, sentence in parts if sentence])


def limits_in_words(limits: Limits) -> str:
    """The limits that were set, as "|difference| at most 0.01, ..."; empty for none."""
    said = []
    if limits.atol is not None or limits.rtol is not None:
        said.append(f"|difference| at most {_short(limits.atol or 0.0)}"
                    + (f" + {_short(limits.rtol)} · |reference|" if limits.rtol else ""))
    if limits.cosine is not None:
        said.append(f"cosine similarity at least {_short(limits.cosine)}")
    if limits.top1 is not None:
        said.append(f"top-1 agreement at least {percent(limits.top1)}")
    return ", ".join(said)


def _short(value: float) -> str:
    return f"{float(value):g}"


def _course(run: Run) -> tuple[str, str]:
    """Whether the run itself succeeded."""
    log, record = run.log, run.record
    if record and record.part and not (log and log.succeeded):
        return FAIL, (f"The record breaks off after {count(record.executions, 'execution')}: "
                      "it is only a part of what was written, so fetch it again.")
    if record and not record.complete and not (log and log.succeeded):
        within = f" within {record.unfinished}" if record.unfinished else ""
        return FAIL, (f"The record was cut short: the run ended by a signal or a crash{within}, "
                      f"after {count(record.executions, 'execution')}.")
    if record and record.exit_status:
        return FAIL, f"The run ended with status {record.exit_status}{_first_error(run)}."
    if log and log.stopped:
        return FAIL, f"The run was stopped by a signal after {log.stopped}."
    if log and not log.succeeded:
        return FAIL, f"The run failed after {count(log.executed, 'inference')}{_first_error(run)}."
    if log and not log.executed:
        return OPEN, "The model was loaded, and no inference was run."
    if log:
        return PASS, f"{count(log.executed, 'inference')} ran without an error."
    if record and record.exit_status == 0:
        return PASS, f"The run succeeded with {count(record.executions, 'execution')}."
    return OPEN, "Nothing here tells whether the run succeeded."


def _first_error(run: Run) -> str:
    return f": {run.log.errors[0]}" if run.log and run.log.errors else ""


def _outputs(run: Run) -> tuple[str, str]:
    """Whether the outputs are right, by the comparison."""
    if run.comparison is None:
        return OPEN, ""
    limits = limits_in_words(run.comparison.limits)
    if run.comparison.verdict == "pass":
        return PASS, f"The outputs agree with the reference ({limits})."
    said = [*_beyond(run.comparison, limits), *_not_compared(run.comparison)]
    return FAIL, " ".join(said) or \
        f"The outputs do not agree with the reference: {'; '.join(run.comparison.reasons)}."


def _beyond(comparison: Comparison, limits: str) -> list[str]:
    """A sentence about the outputs that exceed the limits, when there are any."""
    names = [one.name for one in comparison.outputs if not one.passed]
    if not names or not comparison.compared:
        return []
    which = f"Output {names[0]} exceeds" if len(names) == 1 else f"{len(names)} outputs exceed"
    share = f" in {comparison.failed:,} of {comparison.compared:,} cases" \
        if comparison.failed else ""
    return [f"{which} the limits{share} ({limits})."]


def _not_compared(comparison: Comparison) -> list[str]:
    """A sentence about outputs that are missing or of another size, when there are any."""
    problems = [case for case in comparison.runs if case.problem]
    if not problems:
        return []
    first = problems[0]
    return [f"{count(comparison.not_compared, 'output')} could not be compared, first that of "
            f"inference {first.index}: {first.problem}."]


def count(number: int, what: str) -> str:
    """A number and its noun, in the plural where that is right."""
    return f"{number:,} {what}" if number == 1 else f"{number:,} {what}s"
