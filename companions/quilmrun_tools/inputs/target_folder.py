"""The folder that quilmrun-inputs writes: new, empty, or its own from an earlier time.

What is written waits in a folder inside until all of it is there, so that a run that fails leaves
everything as it was. Files that quilmrun-inputs did not make are neither replaced nor removed.
"""

import os
import shutil
import sys
import tempfile
from pathlib import Path
from typing import Optional

from quilmrun_tools.artifacts import prepared_inputs
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.json_files import write_json

_WAITING = ".quilmrun-inputs-"


class TargetFolder:
    """A context: `waiting` is where files are written, `commit` moves them to their place."""

    def __init__(self, path: str) -> None:
        self.path = Path(path)
        self._made = not self.path.exists()
        self._old = self._earlier()
        try:
            self.path.mkdir(parents=True, exist_ok=True)
            self.waiting = Path(tempfile.mkdtemp(prefix=_WAITING, dir=self.path))
        except OSError as error:
            raise Unreadable(f"cannot write to {path}: {error.strerror}") from error

    def __enter__(self) -> "TargetFolder":
        return self

    def __exit__(self, kind: object, error: object, *_: object) -> None:
        shutil.rmtree(self.waiting, ignore_errors=True)
        if self._made and not os.listdir(self.path):
            self.path.rmdir()
        if isinstance(error, OSError):
            raise Unreadable(f"cannot write to {self.path}: {error.strerror}") from error

    def _earlier(self) -> Optional[prepared_inputs.Manifest]:
        if self._made:
            return None
        if not self.path.is_dir():
            raise Unreadable(f"{self.path} is not a folder: name another one with -o")
        if (self.path / prepared_inputs.FILE_NAME).exists():
            return prepared_inputs.read_manifest(str(self.path))
        if any(not name.startswith(_WAITING) for name in os.listdir(self.path)):
            raise Unreadable(f"{self.path} holds files that quilmrun-inputs did not make: name "
                                 "a new or empty folder with -o")
        return None

    def _old_files(self) -> dict[str, int]:
        """{name: bytes} of what an earlier time made here."""
        if self._old is None:
            return {}
        return {file.file: file.bytes for file in self._old.files if "/" not in file.file}

    def commit(self, description: prepared_inputs.Manifest) -> None:
        """Replaces what was made earlier by what waits, and by the description of it."""
        old = self._old_files()
        new = os.listdir(self.waiting)
        for name in new:
            known = name in old or (self._old is not None and name == self._old.list_file)
            if os.path.lexists(self.path / name) and not known:
                raise Unreadable(f"{self.path / name} was not made by quilmrun-inputs: name "
                                     "another folder with -o")
        # First, so that it names what is there even if this is interrupted.
        write_json(str(self.path / prepared_inputs.FILE_NAME), description.to_dict(), sys.stdout)
        for name in old.keys() - set(new):
            path = self.path / name
            if path.is_file() and path.stat().st_size == old[name]:
                path.unlink()
        for name in new:
            os.replace(self.waiting / name, self.path / name)
