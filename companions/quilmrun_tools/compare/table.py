"""A comparison as text for people."""

from typing import Iterable

from quilmrun_tools.artifacts.comparison import Comparison, Measures
from quilmrun_tools.artifacts.run_outputs import text
from quilmrun_tools.common.streams import Streams, one_line
from quilmrun_tools.common.tables import labels_of, print_table

_COLUMNS = ("elements", "max abs", "mean abs", "max rel", "cosine", "SNR dB", "differ", "top-1",
            "top-5", "NaN", "inf")
_WORDS = ("output", "type", "run", "from")  # the other columns


def _cells(one: Measures) -> list[str]:
    return [f"{one.elements}", f"{one.max_abs:.3g}", f"{one.mean_abs:.3g}", f"{one.max_rel:.3g}",
            f"{one.cosine:.7f}", f"{one.snr_db:.1f}", f"{one.differing:.1%}",
            *("-" if agreed is None else f"{agreed:.1%}" for agreed in (one.top1, one.top5)),
            *("/".join(map(str, counts)) if any(counts) else "0" for counts in (one.nan, one.inf))]


def print_comparison(comparison: Comparison, worst: int, all_sources: Iterable[str],
                     streams: Streams) -> None:
    """Outputs, the worst inferences, notes and the verdict. Names of sources are as long as tells
    them apart among `all_sources`."""
    print_table(["output", "type", *_COLUMNS],
                [[text((one.name, one.duplicate)), one.type, *_cells(one)]
                 for one in comparison.outputs], _WORDS, streams)
    labels = labels_of({*all_sources, *(path for case in comparison.runs for path in case.sources)})
    said = {id(case): one_line(", ".join(labels[path] for path in case.sources))
            for case in comparison.runs}
    problems = [case for case in comparison.runs if case.problem]
    listed = [case for case in comparison.runs if not case.problem and case.max_abs > 0]
    if listed[:worst]:
        streams.say("\nworst runs:")
        print_table(["run", "output", *_COLUMNS, "from"],
                    [[str(case.index), text((case.output, case.duplicate)), *_cells(case),
                      said[id(case)]] for case in listed[:worst]], _WORDS, streams)
    if problems:
        streams.say()
    for case in problems[:max(worst, 1)]:
        streams.say(f"{case.index}/{text((case.output, case.duplicate))}: {case.problem}; "
                    f"{said[id(case)]}".rstrip("; "))
    if comparison.not_compared > max(worst, 1):
        streams.say(f"... and {comparison.not_compared - max(worst, 1)} more")
    for note in comparison.notes:
        streams.say(f"note: {one_line(note)}")
    streams.say(f"\n{verdict(comparison)}")


def verdict(comparison: Comparison) -> str:
    """One line."""
    runs = f"{comparison.inferences} {'run' if comparison.inferences == 1 else 'runs'}"
    if comparison.verdict == "fail":
        return f"FAIL: {'; '.join(comparison.reasons)} ({runs}; {comparison.limits})"
    return f"PASS: {runs}, {comparison.limits}"
