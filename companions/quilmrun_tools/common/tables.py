"""Tables and names as text for people."""

from pathlib import PurePath
from typing import Collection, Iterable, Sequence

from quilmrun_tools.common.streams import Streams


def print_table(head: Sequence[str], rows: Sequence[Sequence[str]], left: Collection[str],
                streams: Streams) -> None:
    """Columns as wide as their longest cell: those of the titles in `left` flush left, numbers
    flush right."""
    widths = [max(len(row[at]) for row in [head, *rows]) for at in range(len(head))]
    for row in [head, *rows]:
        streams.say("  ".join(cell.ljust(width) if title in left else cell.rjust(width)
                              for cell, title, width in zip(row, head, widths)).rstrip())


def labels_of(paths: Iterable[str]) -> dict[str, str]:
    """Each path's file name, with as many of the folders above as tell it from the others."""
    parts = {path: PurePath(path).parts for path in paths}
    waiting, labels, depth = set(parts), {}, 1
    while waiting:
        owners: dict[str, list[str]] = {}
        for path in waiting:
            owners.setdefault("/".join(parts[path][-depth:]), []).append(path)
        for label, same in owners.items():
            for path in same:
                if len(same) == 1 or depth >= len(parts[path]):
                    labels[path] = label
                    waiting.discard(path)
        depth += 1
    return labels
