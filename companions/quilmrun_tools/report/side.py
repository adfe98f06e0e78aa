"""A run as the page shows it, alone or beside another."""

from __future__ import annotations

from dataclasses import dataclass

from quilmrun_tools.common import units
from quilmrun_tools.report.figures import Figures, figures_of
from quilmrun_tools.report.run import Run
from quilmrun_tools.report.verdict import Verdict, judge


@dataclass(frozen=True)
class Side:
    """A run on the page; `series` chooses its colour."""

    run: Run
    figures: Figures
    verdict: Verdict
    series: int

    @property
    def label(self) -> str:
        return self.run.label

    @property
    def colour(self) -> str:
        """The custom property of the style sheet that holds the run's colour."""
        return f"s{self.series}"

    @property
    def worst_is(self) -> str:
        worst = self.figures.worst_difference
        return "–" if worst is None else units.significant(worst)


def sides_of(run: Run, other: Run | None) -> list[Side]:
    """The run that is compared with comes first, as a "before"; the run itself last."""
    runs = [(run, 0)] if other is None else [(other, 1), (run, 0)]
    return [Side(each, figures_of(each), judge(each), series) for each, series in runs]
