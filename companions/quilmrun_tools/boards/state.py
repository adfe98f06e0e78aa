"""The folder below `out` in which a run keeps what it knows, so that it survives any end.

    lock              held by the quilmrun-boards that works here
    jobs.lock         shared by its jobs
    plan.json         what is run; entries, the whole list, is there when it has been cut
    boards/K.json     how board K fares; K.lock is held by the job that uses it, K.at says how far
                      that one is
    parts/N/slice     the inputs of part N, and receipt.json when it is done; tries.json until then
    parts/N/log.txt ... what came back with the outputs
    tries/N.T.txt     the log of a try that failed
    stop              why no more parts are begun
"""

from __future__ import annotations

import fcntl
import json
import os
import time
from contextlib import contextmanager
from dataclasses import asdict, dataclass, replace
from pathlib import Path
from typing import Any, Iterator, Optional

from quilmrun_tools.artifacts.board_results import Part, Try, part_from_json
from quilmrun_tools.boards.plan import Plan, Slice

NAME = ".quilmrun-boards"


@dataclass(frozen=True)
class BoardState:
    """How a board fares in a run."""
    in_a_row: int = 0  # failures since its last part
    failures: int = 0
    done_at: float = 0.0  # when it last did a part, in seconds since 1970
    left_out: str = ""  # why it gets no more parts
    processor: str = ""
    tool: str = ""
    library: str = ""


class State:  # pylint: disable=too-many-public-methods  # one for each thing that it keeps
    """The folder; every file in it is written whole or not at all."""

    def __init__(self, out: str) -> None:
        self.out = Path(out)
        self.root = self.out / NAME

    # ---- The run ----------------------------------------------------------------------------

    def create(self) -> None:
        """Makes the folders."""
        for name in ("boards", "parts", "tries"):
            (self.root / name).mkdir(parents=True, exist_ok=True)

    def write_plan(self, plan: Plan) -> None:
        self._write("plan.json", plan.to_bytes())

    def write_entries(self, entries: list[bytes]) -> None:
        """The whole list, as it was cut; from here on there are parts to go on with."""
        self._write("entries", b"\0".join(entries))

    def read_plan(self) -> Plan:
        return Plan.from_bytes((self.root / "plan.json").read_bytes())

    def stop(self, reason: str) -> None:
        """Lets no more parts begin. The first reason counts."""
        if not self.stopped:
            self._write("stop", reason.encode(errors="surrogateescape"))

    @property
    def stopped(self) -> str:
        """Why no more parts are begun; empty as long as they are."""
        try:
            return (self.root / "stop").read_text(errors="surrogateescape")
        except FileNotFoundError:
            return ""

    # ---- Boards -----------------------------------------------------------------------------

    def board(self, index: int) -> BoardState:
        try:
            return BoardState(**json.loads((self.root / f"boards/{index}.json").read_bytes()))
        except (FileNotFoundError, ValueError):
            return BoardState()

    def change_board(self, index: int, **changes: Any) -> BoardState:
        """REQUIRES: the board's lock."""
        changed = replace(self.board(index), **changes)
        self._write(f"boards/{index}.json", json.dumps(asdict(changed)).encode())
        return changed

    def try_board(self, index: int) -> Optional[int]:
        """A descriptor that holds the board until it is closed; None when another job has it."""
        return take_lock(self.root / f"boards/{index}.lock", fcntl.LOCK_EX)

    def tell(self, index: int, part: int, at: int) -> None:
        """Notes how far a board is, for who watches; -1 is nowhere."""
        path = self.root / f"boards/{index}.at"
        path.write_text(f"{part} {at}", encoding="ascii")

    def told(self, index: int) -> tuple[int, int]:
        """What tell() noted last."""
        try:
            part, at = map(int, (self.root / f"boards/{index}.at").read_text().split())
            return part, at
        except (FileNotFoundError, ValueError):
            return -1, -1

    # ---- Parts ------------------------------------------------------------------------------

    def part(self, number: int) -> Path:
        """The folder of a part."""
        return self.root / f"parts/{number:06d}"

    def numbers(self) -> list[int]:
        return sorted(int(name) for name in os.listdir(self.root / "parts"))

    def write_slice(self, one: Slice) -> None:
        self.part(one.number).mkdir(parents=True, exist_ok=True)
        self._write(f"parts/{one.number:06d}/slice", one.to_bytes())

    def read_slice(self, number: int) -> Slice:
        return Slice.from_bytes((self.part(number) / "slice").read_bytes())

    def tries(self, number: int) -> list[Try]:
        """What was tried without success."""
        try:
            return [Try(**one) for one in json.loads(
                (self.part(number) / "tries.json").read_bytes())]
        except FileNotFoundError:
            return []

    def failed_at(self, number: int) -> float:
        """When a part failed last, in seconds since 1970."""
        try:
            return (self.part(number) / "tries.json").stat().st_mtime
        except FileNotFoundError:
            return 0.0

    def add_try(self, number: int, one: Try) -> list[Try]:
        tries = [*self.tries(number), one]
        self._write(f"parts/{number:06d}/tries.json",
                    json.dumps([asdict(each) for each in tries]).encode())
        return tries

    def write_receipt(self, part: Part, inputs: str) -> None:
        """From here on the part is done. `inputs` is the checksum of what it was made of."""
        self._write(f"parts/{part.number:06d}/receipt.json",
                    json.dumps({**asdict(part), "inputs": inputs}).encode())

    def receipt(self, number: int) -> Optional[tuple[Part, str]]:
        """A part that is done, and the checksum of its inputs."""
        try:
            value = json.loads((self.part(number) / "receipt.json").read_bytes())
            inputs = str(value.pop("inputs"))
            return part_from_json(value), inputs
        except (FileNotFoundError, ValueError, KeyError, TypeError):
            return None

    # ---- Locks ------------------------------------------------------------------------------

    @contextmanager
    def job(self) -> Iterator[None]:
        """Held by a job as long as it runs."""
        while (lock := take_lock(self.root / "jobs.lock", fcntl.LOCK_SH)) is None:
            time.sleep(0.01)  # somebody is asking whether there are jobs
        try:
            yield
        finally:
            os.close(lock)

    def wait_for_jobs(self, seconds: float) -> bool:
        """Whether all jobs have ended within a time."""
        end = time.monotonic() + seconds
        while True:
            lock = take_lock(self.root / "jobs.lock", fcntl.LOCK_EX)
            if lock is not None:
                os.close(lock)
                return True
            if time.monotonic() > end:
                return False
            time.sleep(0.1)

    def _write(self, name: str, content: bytes) -> None:
        target = self.root / name
        temporary = target.with_name(f".{target.name}.{os.getpid()}")
        temporary.write_bytes(content)
        os.replace(temporary, target)


def take_lock(path: Path, kind: int) -> Optional[int]:
    """A descriptor with a lock on a file, or None when somebody else has it. The system gives it
    back however the process ends; programs that are started do not get it."""
    descriptor = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o644)
    try:
        fcntl.flock(descriptor, kind | fcntl.LOCK_NB)
        return descriptor
    except OSError:
        os.close(descriptor)
        return None
