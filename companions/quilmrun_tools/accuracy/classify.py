"""Judges a classifier's run: scores of all pictures against their labels."""

from dataclasses import dataclass, field
from typing import Any, Callable, Iterator, Optional

import numpy as np

from quilmrun_tools.accuracy import classification, labels
from quilmrun_tools.accuracy.classification import Counts, Given
from quilmrun_tools.accuracy.pictures import RunPicture, check_whole, count_of, pictures_of
from quilmrun_tools.artifacts import accuracy_results as results
from quilmrun_tools.artifacts.output_folder import Key
from quilmrun_tools.artifacts.run_log import name_in_files
from quilmrun_tools.artifacts.run_outputs import RunOutputs, text
from quilmrun_tools.artifacts.values import Reader, Values
from quilmrun_tools.common.errors import Unreadable

Array = np.ndarray[Any, Any]

_WORST = 24  # pictures that are kept
_LARGEST_CLASSES = 5_000  # whose confusion matrix fits into memory
_BLOCK = 1 << 20  # scores that are judged at a time
_LOST = 10  # classes that are named

Progress = Callable[[list[int]], Iterator[int]]  # the same numbers, with a bar


@dataclass(frozen=True)
class Scores:
    """An output of a score for each class."""
    outputs: RunOutputs
    key: Key
    classes: int

    def rows_of(self, run: int, reader: Reader) -> Array:
        """pictures x classes of one inference."""
        found = self.outputs.values_of(run).get(self.key)
        if not found or found.cut_short or found.count % self.classes or not found.count:
            raise Unreadable(f"{self.outputs.path}/{run} has no whole output {text(self.key)} of "
                             f"{self.classes} scores")
        rows: Array = reader.whole(found).reshape(-1, self.classes)
        return rows


@dataclass
class Judged:
    """What one run gave for all pictures."""
    pictures: list[RunPicture]
    given: Given
    dead: list[str] = field(default_factory=list)  # what makes the outputs worth nothing


def find_scores(outputs: RunOutputs, named: Optional[str]) -> Scores:
    """The output of scores: the one that the user names, or the only one that can be it."""
    known = outputs.keys()
    keys = [key for key in known if named is None or name_in_files(named) == key[0]]
    if not keys:
        raise Unreadable(f"--output: there is no output {named} in {outputs.path}, but "
                         f"{', '.join(map(text, known))}")
    found = [(key, count) for key in keys if (count := _classes_of(outputs, key)) > 1]
    if len(found) != 1:
        raise Unreadable(
            f"{outputs.path} has {'no' if not found else 'several'} outputs of scores: name it "
            f"with --output, of {', '.join(map(text, known))}" if named is None or found else
            f"{named} is no output of a score for each class")
    key, count = found[0]
    if count > _LARGEST_CLASSES:
        raise Unreadable(f"{text(key)} has {count} scores, more than the {_LARGEST_CLASSES} "
                         "classes that can be told apart here")
    return Scores(outputs, key, count)


def _classes_of(outputs: RunOutputs, key: Key) -> int:
    """The scores that an output has for each picture; 0 when it has none."""
    tensor = outputs.tensor(key)
    if tensor:
        sides = [dim for dim in tensor.dims if dim != 1]
        return sides[-1] if 0 < len(sides) <= 2 and min(sides) > 1 else 0
    run = outputs.runs[0]
    found = outputs.values_of(run).get(key)
    return found.count // (count_of(outputs, run) or 1) if found else 0


def all_pictures(scores: Scores) -> list[RunPicture]:
    """The pictures of all inferences, in their order."""
    outputs = scores.outputs
    check_whole(outputs)
    return [picture for run in outputs.runs for picture in
            pictures_of(outputs, run, _count(outputs.values_of(run).get(scores.key), scores))]


def _count(values: Optional[Values], scores: Scores) -> int:
    return values.count // scores.classes if values else 0


def judge_all(scores: Scores, pictures: list[RunPicture], true: Array, progress: Progress
              ) -> Judged:
    """Judges all pictures, some inferences at a time."""
    reader = Reader(max(_BLOCK, scores.classes))
    parts: list[Given] = []
    waiting: list[Array] = []
    facts = _Facts()
    done = 0
    runs = scores.outputs.runs
    places: dict[int, list[int]] = {}
    for picture in pictures:
        places.setdefault(picture.run, []).append(picture.place)
    for run in progress(runs):
        waiting.append(scores.rows_of(run, reader)[places.get(run, [])])
        if sum(part.size for part in waiting) < _BLOCK and run != runs[-1]:
            continue
        block = np.concatenate(waiting)
        facts.add(block)
        parts.append(classification.judge(block, true[done:done + len(block)]))
        done, waiting = done + len(block), []
    whole = Given(*(np.concatenate([getattr(part, name) for part in parts])
                    for name in ("rank", "given", "confidence")))
    return Judged(pictures, whole, facts.notes(text(scores.key), len(pictures)))


class _Facts:
    """What tells that a model is dead."""

    def __init__(self) -> None:
        self._first: Optional[Array] = None
        self._same = True
        self._flat = self._nan = 0

    def add(self, block: Array) -> None:
        """Adds the scores of some pictures."""
        if not block.size:
            return
        first = block[0] if self._first is None else self._first
        self._first = first
        self._same &= bool(np.array_equal(block, np.broadcast_to(first, block.shape),
                                          equal_nan=True))
        self._flat += int(np.count_nonzero((block == block[:, :1]).all(axis=1)))
        self._nan += int(np.count_nonzero(np.isnan(block).any(axis=1)))

    def notes(self, name: str, count: int) -> list[str]:
        """A line for each."""
        found = [f"{name} holds NaN for {self._nan} of {count} pictures"] if self._nan else []
        if self._flat:
            found.append(f"{name} has the same score for all classes for {self._flat} of {count} "
                         "pictures, which counts as wrong")
        if self._same and count > 1:
            found.append(f"{name} is the same for all {count} pictures")
        return found


def summarise(path: str, judged: Judged, true: Array, classes: labels.Classes
              ) -> results.Classification:
    """The results of one run."""
    counts = Counts(classes.count)
    counts.add(true, judged.given)
    names = [classes.name(at) for at in range(classes.count)]
    by_class = counts.classes(names)
    given, wrong = judged.given, np.flatnonzero(~judged.given.right)
    order = wrong[np.argsort(-given.confidence[wrong], kind="stable")][:_WORST]
    worst = [results.WrongPicture(judged.pictures[at].described(), names[true[at]],
                                  names[given.given[at]], float(given.confidence[at]))
             for at in order]
    return results.Classification(
        path, counts.count, counts.top1 / counts.count, counts.top5 / counts.count,
        classification.wilson(counts.top1, counts.count),
        classification.wilson(counts.top5, counts.count), classification.macro_means(by_class),
        by_class, counts.confusion.tolist(), worst, notes=judged.dead)


def hold_against(path: str, ours: Judged, other: Judged, true: Array, classes: labels.Classes
                 ) -> results.Against:
    """What changed from another run, the earlier one, to this one."""
    now, before = ours.given.right, other.given.right
    became_right, became_wrong = (int(np.count_nonzero(changed)) for changed in
                                  (now & ~before, before & ~now))
    lost = np.bincount(true[before & ~now], minlength=classes.count) - \
        np.bincount(true[now & ~before], minlength=classes.count)
    most = [at for at in np.argsort(-lost, kind="stable")[:_LOST] if lost[at] > 0]
    return results.Against(
        path, float(np.mean(before)), float(np.mean(other.given.rank < 5)), became_right,
        became_wrong, classification.mcnemar(became_right, became_wrong),
        [(classes.name(at), int(lost[at])) for at in most])


def check_same_pictures(ours: list[RunPicture], other: list[RunPicture], path: str) -> None:
    """Raises Unreadable unless two runs went over the same pictures in the same order."""
    if len(ours) != len(other):
        raise Unreadable(f"--against: {path} has {len(other)} pictures instead of {len(ours)}")
    for one, two in zip(ours, other):
        if one.source and two.source and one.source.sha256 != two.source.sha256:
            raise Unreadable(f"--against: {path} went over other pictures: {two} where this run "
                             f"has {one}")
