"""The command line of scripts/mutate."""

import argparse
import os
import queue
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor
from itertools import islice
from typing import Iterable, Iterator

from mutation import faults, reach, rules
from mutation.faults import Fault
from mutation.workshop import Workshop

_GOALS = {True: 90, False: 95}  # per cent caught, of random faults and of those in the list


class Bench:
    """As many workshops as there are processors, and what is known of the tests."""

    def __init__(self, cpp: bool) -> None:
        self.idle: queue.Queue[Workshop] = queue.Queue()
        workshops = [Workshop(str(number)) for number in range(os.cpu_count() or 1)]
        with ThreadPoolExecutor(len(workshops)) as pool:
            list(pool.map(Workshop.prepare, workshops))
        self.reach = reach.load(workshops[0], cpp)
        for workshop in workshops:
            self.idle.put(workshop)
        self.pool = ThreadPoolExecutor(len(workshops))

    def judge(self, fault: Fault) -> str:
        """The outcome: first by the tests that ran the line, then, since a line may count for
        another and a killed process counts nothing, by all that ran the file."""
        by_line, by_file = self.reach.of_line(fault), self.reach.of_file(fault)
        tests = by_line + [test for test in by_file if test not in by_line]
        workshop = self.idle.get()
        try:
            return workshop.outcome(fault, self.reach.timed(tests))
        finally:
            self.idle.put(workshop)

    def judge_all(self, many: Iterable[Fault]) -> Iterator[tuple[Fault, str]]:
        batch = list(many)
        yield from zip(batch, self.pool.map(self.judge, batch))


def _show(bench: Bench, fault: Fault, outcome: str) -> None:
    print(f"{outcome}: {fault}", flush=True)
    if outcome == "MISSED":
        ran = bench.reach.of_line(fault)
        print(f"    the line is run by {', '.join(ran)}" if ran else "    no test runs the line",
              flush=True)


def _random(bench: Bench, count: int, seed: int, folder: str) -> list[tuple[Fault, str]]:
    """`count` faults that build, with their outcomes; those that do not are drawn again."""
    results: list[tuple[Fault, str]] = []
    fresh = rules.drawn(seed, folder)
    while len(results) < count:
        batch = list(islice(fresh, count - len(results)))
        if not batch:
            break
        for fault, outcome in bench.judge_all(batch):
            if outcome != "does not build":
                results.append((fault, outcome))
                _show(bench, fault, outcome)
    return results


def _from_list(bench: Bench, chosen: list[Fault]) -> list[tuple[Fault, str]]:
    results = []
    for fault, outcome in bench.judge_all(chosen):
        results.append((fault, outcome))
        _show(bench, fault, outcome)
    return results


def _sum_up(results: list[tuple[Fault, str]], goal: int) -> bool:
    """Shows how many were caught, by folder and of all; returns whether that meets the goal. What
    does not build counts as missed: such a line of the list tests nothing."""
    caught: dict[str, list[bool]] = defaultdict(list)
    for fault, outcome in results:
        caught[os.path.dirname(fault.file)].append(outcome == "caught")
    for folder, outcomes in sorted(caught.items()):
        print(f"{sum(outcomes):6} of {len(outcomes):4} {folder}")
    total = sum(map(sum, caught.values()))
    print(f"mutate: {total} of {len(results)} caught, goal {goal} %")
    return 100 * total >= goal * len(results)


def main(arguments: list[str]) -> int:
    """Does what the command line says; returns the exit status."""
    parser = argparse.ArgumentParser(
        prog="mutate", description="Puts faults into copies of the sources, one at a time, "
        "and says which of them the tests catch. Without --random, the faults of "
        "scripts/mutations.txt.")
    parser.add_argument("words", nargs="*", help="only faults whose line in the list holds these")
    parser.add_argument("--random", type=int, metavar="N", help="N faults made by rule instead")
    parser.add_argument("--seed", type=int, default=1, metavar="S",
                        help="picks the random faults; 1")
    parser.add_argument("--in", dest="folder", default="", metavar="FOLDER",
                        help="random faults below this folder only, such as input or companions")
    options = parser.parse_args(arguments)
    if options.random is None:
        chosen = faults.listed(" ".join(options.words))
        bench = Bench(any(not fault.file.endswith(".py") for fault in chosen))
        return 0 if _sum_up(_from_list(bench, chosen), _GOALS[False]) else 1
    places = rules.sources(options.folder)
    if not places:
        parser.error(f"no sources in {options.folder}")
    bench = Bench(any(path.suffix != ".py" for path in places))
    results = _random(bench, options.random, options.seed, options.folder)
    return 0 if _sum_up(results, _GOALS[True]) else 1
