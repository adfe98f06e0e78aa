"""The folder that quilmrun-inputs writes: new, empty, or its own from an earlier time.

What is written waits in a folder beside it, which takes its place in one step when all of it is
there. So whatever ends the companion, there is either the old folder or the new one, and both are
whole. A folder with anything in it that quilmrun-inputs did not make, or that was changed since, is
refused.
"""

import fcntl
import hashlib
import os
import re
import secrets
import shutil
from dataclasses import dataclass
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts import prepared_inputs
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.parallel_map import parallel_map
from quilmrun_tools.inputs.checksum import checksum
from quilmrun_tools.inputs.exchange import exchange

_FILES = re.compile(r"[A-Za-z0-9_-]+\.bin|list\.txt|inputs\.json")  # that a waiting folder holds


@dataclass(frozen=True)
class _State:
    """What changes with a file's content."""
    bytes: int
    changed_ns: int

    @staticmethod
    def read(path: Path) -> "_State":
        """That of a file, not of what a link leads to."""
        status = os.lstat(path)
        return _State(status.st_size, status.st_mtime_ns)


class TargetFolder:
    """A context: `waiting` is where files are written, `commit` puts them in place."""

    def __init__(self, path: str) -> None:
        self.path = Path(path)
        self._real = Path(os.path.realpath(path))
        if Path.cwd() == self._real or self._real in Path.cwd().parents:
            raise Unreadable(f"{path} is the folder that you are in, or above it: name one below")
        if os.path.ismount(self._real):
            raise Unreadable(f"{path} is where a file system is mounted, which cannot be replaced: "
                             f"name a folder in it, as {path}/inputs")
        self._old = self._earlier()
        self._exchanged = False  # then the old folder is where the new one waited
        self._remove_leftovers()
        try:
            self._real.parent.mkdir(parents=True, exist_ok=True)
            self.waiting, self._lock = self._new_waiting()
        except OSError as error:
            raise Unreadable(f"cannot write beside {path}: {error.strerror}; name a folder in one "
                             "that you may write to") from error

    def _new_waiting(self) -> tuple[Path, int]:
        """A new folder and a descriptor that holds its lock."""
        while True:
            waiting = self._real.parent / f"{self._prefix}{secrets.token_hex(4)}"
            waiting.mkdir()
            lock = _lock(waiting)
            # Before it was locked, another companion may have taken it for a leftover.
            if lock is not None and waiting.exists():
                return waiting, lock
            if lock is not None:
                os.close(lock)

    @property
    def _prefix(self) -> str:
        """What the names of waiting folders begin with."""
        return f".{self._real.name[:100]}.quilmrun-inputs-"

    def __enter__(self) -> "TargetFolder":
        return self

    def __exit__(self, kind: object, error: object, *_: object) -> None:
        if not self._exchanged:
            shutil.rmtree(self.waiting, ignore_errors=True)
        os.close(self._lock)
        if isinstance(error, OSError):
            raise Unreadable(f"cannot write to {self.path}: {error.strerror}") from error

    def _earlier(self) -> dict[str, _State]:
        """The files that an earlier time made here, after a check that nobody changed them."""
        if not os.path.lexists(self._real):
            return {}
        if not self._real.is_dir():
            raise Unreadable(f"{self.path} is not a folder: name another one with -o")
        if not os.listdir(self._real):
            return {}
        if not (self._real / prepared_inputs.FILE_NAME).exists():
            raise self._foreign("files", "did not make")
        return self._checked(prepared_inputs.read_manifest(str(self._real)))

    def _checked(self, manifest: prepared_inputs.Manifest) -> dict[str, _State]:
        sums = {file.file: file.sha256 for file in manifest.files}
        sums[manifest.list_file] = ""
        names = sorted(set(os.listdir(self._real)) - {prepared_inputs.FILE_NAME})
        unknown = [name for name in names if name not in sums]
        if unknown:
            raise self._foreign(unknown[0], "did not make")
        states = {name: _State.read(self._real / name)
                  for name in [*names, prepared_inputs.FILE_NAME]}
        found_sums = parallel_map(lambda name: checksum(self._real / name), names)
        for name, found in zip(names, found_sums):
            if found not in ((sums[name],) if sums[name] else _list_sums(manifest)):
                raise self._foreign(name, "made, but which was changed since")
        return states

    def _foreign(self, what: str, how: str) -> Unreadable:
        return Unreadable(f"{self.path} holds {what} that quilmrun-inputs {how}: name a new or "
                          "empty folder with -o")

    def _remove_leftovers(self) -> None:
        """Removes waiting folders whose companion was killed; a running one holds their lock."""
        for name in os.listdir(self._real.parent) if self._real.parent.is_dir() else ():
            path = self._real.parent / name
            if not re.fullmatch(re.escape(self._prefix) + "[0-9a-f]{8}", name) or path.is_symlink():
                continue
            try:
                if not all(map(_FILES.fullmatch, os.listdir(path))):
                    continue
                lock = _lock(path)
            except OSError:
                continue
            if lock is not None:
                shutil.rmtree(path, ignore_errors=True)
                os.close(lock)

    def commit(self) -> None:
        """Puts what waits in the place of what an earlier time made."""
        if not os.path.lexists(self._real) or not os.listdir(self._real):
            self._move()
            return
        now = {name: _State.read(self._real / name) for name in os.listdir(self._real)}
        if now != self._old:
            raise self._foreign("files", "did not make, or which were changed meanwhile")
        self._move(exchanged=True)
        self._exchanged = True
        for name, state in self._old.items():
            if _State.read(self.waiting / name) == state:
                (self.waiting / name).unlink()
        if not os.listdir(self.waiting):
            self.waiting.rmdir()

    def _move(self, exchanged: bool = False) -> None:
        try:
            if exchanged:
                exchange(self.waiting, self._real)
            else:
                os.rename(self.waiting, self._real)
        except OSError as error:
            raise Unreadable(f"cannot put the files in the place of {self.path}: {error.strerror}; "
                             "name a new folder with -o") from error


def _list_sums(manifest: prepared_inputs.Manifest) -> tuple[str, ...]:
    """The checksums that a list of the files may have: with the names of inputs or without."""
    texts = ["".join(named * f"{file.input}:" + f"{file.file}\n" for file in manifest.files)
             for named in (False, True)]
    return tuple(hashlib.sha256(text.encode("utf-8", "surrogateescape")).hexdigest()
                 for text in texts)


def _lock(folder: Path) -> Optional[int]:
    """A descriptor that holds the folder's lock; None when another process has it."""
    handle = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC)
    try:
        fcntl.flock(handle, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return handle
    except BlockingIOError:
        os.close(handle)
        return None
