"""A progress bar on a terminal, and nothing elsewhere."""

from typing import Iterable, Iterator, Optional, TypeVar

from quilmrun_tools.common.streams import Streams

Item = TypeVar("Item")


def progress(streams: Streams, items: Iterable[Item], total: Optional[int] = None, what: str = "",
             unit: str = "file") -> Iterator[Item]:
    """The same items, with a progress bar where standard error is a terminal."""
    if not streams.on_terminal:
        return iter(items)
    try:
        from tqdm import tqdm  # pylint: disable=import-outside-toplevel
    except ImportError:  # only the bar is missing
        return iter(items)
    return iter(tqdm(items, total=total, desc=what, unit=unit, leave=False, delay=0.5,
                     file=streams.err))
