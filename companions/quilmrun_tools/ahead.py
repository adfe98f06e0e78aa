"""Work on several threads, for what runs without the interpreter's lock: decoding, scaling,
hashing, reading, arithmetic of arrays."""

import collections
import concurrent.futures
import os
from typing import Callable, Iterable, Iterator, TypeVar

Given = TypeVar("Given")
Made = TypeVar("Made")


def ahead(make: Callable[[Given], Made], given: Iterable[Given]) -> Iterator[Made]:
    """map() on as many threads as there are processors, in order, a few results ahead of their
    use."""
    workers = max(len(os.sched_getaffinity(0)), 1)
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        running: collections.deque = collections.deque()
        try:
            for value in given:
                running.append(pool.submit(make, value))
                if len(running) > 2 * workers:
                    yield running.popleft().result()
            while running:
                yield running.popleft().result()
        finally:
            for future in running:
                future.cancel()
