"""Work on all processors, a few results ahead of their use."""

import collections
import concurrent.futures
import os
from typing import Callable, Iterable, Iterator, TypeVar

Given = TypeVar("Given")
Made = TypeVar("Made")


def parallel_map(make: Callable[[Given], Made], given: Iterable[Given]) -> Iterator[Made]:
    """map() on threads, in order; for long calls that run without the interpreter's lock, such as
    decoding and scaling of pictures."""
    with concurrent.futures.ThreadPoolExecutor(_processors()) as pool:
        yield from _in_order(pool, make, given)


def _processors() -> int:
    return max(len(os.sched_getaffinity(0)), 1)


def _in_order(pool: concurrent.futures.Executor, make: Callable[[Given], Made],
              given: Iterable[Given]) -> Iterator[Made]:
    running: "collections.deque[concurrent.futures.Future[Made]]" = collections.deque()
    try:
        for value in given:
            running.append(pool.submit(make, value))
            if len(running) > 2 * _processors():
                yield running.popleft().result()
        while running:
            yield running.popleft().result()
    finally:
        for future in running:
            future.cancel()
