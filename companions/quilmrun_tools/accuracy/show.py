"""Results as text for people."""

from quilmrun_tools.accuracy.classification import confusions
from quilmrun_tools.artifacts.accuracy_results import (UNDEFINED, Classification, Detection,
                                                       Picture)
from quilmrun_tools.common.streams import Streams, one_line
from quilmrun_tools.common.tables import labels_of, print_table

import numpy as np

_CLASSES = 30  # that are shown
_CONFUSIONS = 10
_WORST = 10


def _number(value: float, digits: int = 3) -> str:
    return "-" if value == UNDEFINED else f"{value:.{digits}f}"


def _percent(share: float) -> str:
    return f"{100 * share:.2f}%"


def _names(pictures: list[Picture]) -> list[str]:
    """Each picture by as much of its path as tells it apart, or by its number."""
    labels = labels_of({one.path for one in pictures if one.path})
    return [one_line(labels[one.path]) if one.path else
            f"inference {one.run}" + f", picture {one.place}" * bool(one.place) for one in pictures]


def show_classification(found: Classification, streams: Streams) -> None:
    """Shares, classes, confusions, the worst pictures and the verdict."""
    streams.say(f"{found.count} pictures, {len(found.classes)} classes")
    for name, share, (low, high) in (("top-1", found.top1, found.top1_interval),
                                     ("top-5", found.top5, found.top5_interval)):
        streams.say(f"{name}: {_percent(share)} (95 % interval {_percent(low)} to {_percent(high)})"
                    f", {round(share * found.count)} right")
    streams.say(f"mean of the classes: precision {_number(found.macro.precision)}, recall "
                f"{_number(found.macro.recall)}, F1 {_number(found.macro.f1)}")
    _show_classes(found, streams)
    _show_confusions(found, streams)
    if found.worst:
        streams.say("\nwrong with the greatest confidence:")
        names = _names([one.picture for one in found.worst[:_WORST]])
        print_table(["picture", "true", "given", "confidence"],
                    [[name, one_line(one.true), one_line(one.given), _number(one.confidence)]
                     for name, one in zip(names, found.worst)], ("picture", "true", "given"),
                    streams)
    _show_against(found, streams)
    _show_end(found.notes, found.verdict, f"top-1 {_percent(found.top1)}, limit ", found.limit,
              streams)


def _show_classes(found: Classification, streams: Streams) -> None:
    shown = [one for one in found.classes if one.support or one.precision != UNDEFINED]
    streams.say(f"\nclasses, the {_CLASSES} with the least F1:" if len(shown) > _CLASSES else "")
    if len(shown) > _CLASSES:
        shown = sorted(shown, key=lambda one: one.f1)[:_CLASSES]
    print_table(["class", "support", "precision", "recall", "F1"],
                [[one_line(one.name), str(one.support), _number(one.precision),
                  _number(one.recall), _number(one.f1)] for one in shown], ("class",), streams)


def _show_confusions(found: Classification, streams: Streams) -> None:
    largest = confusions(np.array(found.confusion), _CONFUSIONS)
    if largest:
        streams.say("\nlargest confusions:")
        print_table(["true", "given", "pictures"],
                    [[one_line(found.classes[true].name), one_line(found.classes[given].name),
                      str(count)] for true, given, count in largest], ("true", "given"), streams)


def _show_against(found: Classification, streams: Streams) -> None:
    other = found.against
    if not other:
        return
    streams.say(f"\nagainst {one_line(other.path)}: top-1 {_percent(other.top1)} there, "
                f"{_percent(found.top1)} here; {other.became_right} became right, "
                f"{other.became_wrong} wrong (McNemar's exact p {other.p:.3g})")
    if other.lost:
        lost = ", ".join(f"{one_line(name)} ({count})" for name, count in other.lost)
        streams.say(f"classes that lost most: {lost}")


def show_detection(found: Detection, streams: Streams) -> None:
    """AP, AR, classes, the worst pictures and the verdict."""
    streams.say(f"{found.count} pictures, {found.objects} objects, {found.detections} detections")
    print_table(["", "AP", "at 0.50", "at 0.75", "small", "medium", "large"],
                [["precision", *map(_number, (found.ap, found.ap50, found.ap75, found.ap_small,
                                              found.ap_medium, found.ap_large))]], ("",), streams)
    print_table(["", "1", "10", "100 detections"],
                [["recall", *map(_number, (found.ar1, found.ar10, found.ar100))]], ("",), streams)
    streams.say()
    shown = [one for one in found.classes if one.count]
    if len(shown) > _CLASSES:
        streams.say(f"classes, the {_CLASSES} with the least AP:")
        shown = sorted(shown, key=lambda one: one.ap)[:_CLASSES]
    print_table(["class", "objects", "AP"],
                [[one_line(one.name), str(one.count), _number(one.ap)] for one in shown],
                ("class",), streams)
    if found.worst:
        streams.say(f"\nmost errors, by boxes with a score of {found.threshold:.3g} and more:")
        names = _names([one.picture for one in found.worst[:_WORST]])
        print_table(["picture", "right", "wrong", "missed"],
                    [[name, str(one.right), str(one.wrong), str(one.missed)]
                     for name, one in zip(names, found.worst)], ("picture",), streams)
    _show_end(found.notes, found.verdict, f"AP {_number(found.ap, 4)}, limit ", found.limit,
              streams)


def _show_end(notes: list[str], verdict: str | None, text: str, limit: float | None,
              streams: Streams) -> None:
    for note in notes:
        streams.say(f"note: {one_line(note)}")
    if verdict:
        streams.say(f"\n{verdict.upper()}: {text}{limit:g}")
