"""Work on all processors, a few results ahead of their use."""

import collections
import concurrent.futures
import multiprocessing
import os
import signal
import threading
from concurrent.futures.process import BrokenProcessPool, ProcessPoolExecutor
from typing import Any, Callable, Iterable, Iterator, TypeVar

from quilmrun_tools.common.errors import Unreadable

Given = TypeVar("Given")
Made = TypeVar("Made")


def ahead(make: Callable[[Given], Made], given: Iterable[Given]) -> Iterator[Made]:
    """map() on threads, in order; for long calls that run without the interpreter's lock, such as
    decoding and scaling of pictures."""
    with concurrent.futures.ThreadPoolExecutor(_processors()) as pool:
        yield from _in_order(pool, make, given)


def ahead_in_processes(make: Callable[[Given], Made], given: Iterable[Given]) -> Iterator[Made]:
    """map() on copies of this process, in order; for many short calls, between which threads would
    wait for the interpreter's lock. What is given and made is pickled, `make` is not."""
    try:
        with ProcessPoolExecutor(_processors(), multiprocessing.get_context("fork"),
                                 _begin, (make,)) as pool:
            yield from _in_order(pool, _call, given)
    except BrokenProcessPool as error:
        raise Unreadable("one of its processes was killed; maybe there is not enough memory"
                         ) from error


def _processors() -> int:
    return max(len(os.sched_getaffinity(0)), 1)


def _in_order(pool: concurrent.futures.Executor, make: Callable, given: Iterable) -> Iterator:
    running: collections.deque = collections.deque()
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


# ---- In a copy of the process -------------------------------------------------------------------

_make: Callable = NotImplemented


def _begin(make: Callable) -> None:
    global _make  # pylint: disable=global-statement
    _make = make
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the first process tidies up
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    threading.Thread(target=_end_with_parent, daemon=True).start()


def _end_with_parent() -> None:
    """A copy would wait for ever for work from a process that was killed."""
    parent = multiprocessing.parent_process()
    if parent:
        parent.join()
    os._exit(1)


def _call(value: Any) -> Any:
    return _make(value)
