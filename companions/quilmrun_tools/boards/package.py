"""What goes to a board for a part: tool and model when it has not got them, and the part's files.

On the board everything has a name of letters and digits, whatever it is called here.
"""

from __future__ import annotations

import errno
import os
import shlex
import stat
from typing import Callable, Iterator

from quilmrun_tools.boards import ustar
from quilmrun_tools.boards.part_log import Paths
from quilmrun_tools.boards.plan import Plan, Slice, real
from quilmrun_tools.boards.tool_command import ToolCommand, parse_command
from quilmrun_tools.boards.tools import ToolSet
from quilmrun_tools.boards.ustar import Damaged

_ID = 16  # characters of a checksum that tell files apart


class Package:
    """The files of one try of a part."""

    def __init__(self, plan: Plan, part: str, one: Slice) -> None:
        self._plan = plan
        self._part = part
        self._slice = one
        self._command = parse_command(plan.command, "")
        self.tool = plan.remote_tool
        self._members: list[tuple[bytes, Callable[[], Iterator[bytes]], int]] = []
        self._inputs: dict[bytes, str] = {}  # on the board, by the path here
        for path in map(real, one.entries):
            if path not in self._inputs:
                self._inputs[path] = f"in/{len(self._inputs):06d}.bin"

    # ---- What is sent -----------------------------------------------------------------------

    def archive(self, folder: str, have: list[str], tools: ToolSet | None) -> Iterator[bytes]:
        """The size of the archive as a line, and the archive. `folder` is the run's on the board,
        `have` what there is of it. Raises Damaged for a file that cannot be sent."""
        self._add_folder(self._part)
        if tools:
            self.tool = f"{folder}/tool-{tools.sha256[:_ID]}/bin/quilmrun"
            self._add_tool(tools, have)
        if self._model() not in have:
            self._add_file(f"{self._part}/new-{self._model()}",
                           os.fsencode(self._command.last("m")))
        for name in ("in", "rpn", "out"):
            self._add_folder(f"{self._part}/{name}")
        for path, name in self._inputs.items():
            self._add_input(f"{self._part}/{name}", path)
        self._add_file(f"{self._part}/quilm.json", os.fsencode(self._command.last("j")))
        for at, rpn in enumerate(self._command.rpn):
            self._add_input(f"{self._part}/rpn/{at}", os.fsencode(rpn))
        lines = "".join(self._inputs[real(entry)] + "\n" for entry in self._slice.entries)
        self._add_text(f"{self._part}/list.txt", lines.encode())
        self._add_text(f"{self._part}/command", os.fsencode(self._start(folder)))
        size = sum(size for _, _, size in self._members) + len(ustar.END)
        yield b"%d\n" % size
        for head, content, _ in self._members:
            yield head
            yield from content()
        yield ustar.END

    def _model(self) -> str:
        return f"model-{self._plan.model_sha256[:_ID]}"

    def _add_tool(self, tools: ToolSet, have: list[str]) -> None:
        name = f"tool-{tools.sha256[:_ID]}"
        if name in have:
            return
        folders = {f"{self._part}/new-{name}/{'/'.join(file.split('/')[:depth])}".rstrip("/")
                   for file, _ in tools.files for depth in range(file.count("/") + 1)}
        for folder in sorted(folders):
            self._add_folder(folder)
        for file, content in tools.files:
            self._add_text(f"{self._part}/new-{name}/{file}", content, 0o700)

    def _add_folder(self, name: str) -> None:
        self._members.append((ustar.header(name, 0, 0o700, True), lambda: iter(()),
                              ustar.padded(1)))

    def _add_text(self, name: str, text: bytes, mode: int = 0o600) -> None:
        filled = text.ljust(ustar.padded(len(text)), b"\0")
        self._members.append((ustar.header(name, len(text), mode), lambda: iter([filled]),
                              len(filled) + ustar.padded(1)))

    def _add_file(self, name: str, path: bytes) -> None:
        try:
            size = os.stat(path).st_size
            os.close(os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC))
        except OSError as error:
            raise Damaged(f"cannot read {os.fsdecode(path)}: {error.strerror}") from error
        self._members.append((ustar.header(name, size), lambda: ustar.content(path, size),
                              ustar.padded(size) + ustar.padded(1)))

    def _add_input(self, name: str, path: bytes) -> None:
        """A file that the tool may find missing, or to be something else than a file, just as it
        would here."""
        try:
            kind = stat.S_IFMT(os.stat(path).st_mode)
        except OSError as error:
            if error.errno in (errno.ENOENT, errno.ENOTDIR):
                return
            raise Damaged(f"cannot read {os.fsdecode(path)}: {error.strerror}") from error
        if kind == stat.S_IFREG:
            self._add_file(name, path)
        else:
            self._add_folder(name)

    # ---- How it is run ----------------------------------------------------------------------

    def _start(self, folder: str) -> str:
        """A script that becomes the tool. Its first line is for the far side's script."""
        part = f"{folder}/{self._part}"
        rpn = ",".join(f"{part}/rpn/{at}" for at in range(len(self._command.rpn)))
        arguments = self._command.on_board({
            "m": f"{folder}/{self._model()}", "i": f"{part}/list.txt", "j": f"{part}/quilm.json",
            "r": rpn, "o": f"{part}/out"})
        start = [self.tool, *arguments]
        lines = [f"# tool {os.path.dirname(os.path.dirname(self.tool))}", "echo $$ > pid"]
        if self._plan.library_path:
            lines += [f"LD_LIBRARY_PATH={shlex.quote(self._plan.library_path)}"
                      "${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}", "export LD_LIBRARY_PATH"]
        if self._plan.record:  # whose process is not the tool's
            start = [f"{os.path.dirname(self.tool)}/quilmrun-record", "-q", "-o", "record.json",
                     "sh", "-c", 'echo $$ > pid; exec "$@"', "sh", *start]
        return "\n".join([*lines, f"exec {shlex.join(start)}", ""])

    def paths(self, folder: str, out: bytes) -> Paths:
        """How the tool's log is to be read."""
        command, part = self._command, self._part
        typed = {self._model(): command.last("m"), f"{part}/list.txt": command.last("i"),
                 f"{part}/quilm.json": command.last("j"),
                 **{f"{part}/rpn/{at}": path for at, path in enumerate(command.rpn)}}
        resolved = {os.fsencode(name): real(os.fsencode(path)) for name, path in typed.items()}
        inputs = {os.fsencode(f"{part}/{name}"): path for path, name in self._inputs.items()}
        entries = {os.fsencode(f"{part}/{self._inputs[real(entry)]}"): entry
                   for entry in self._slice.entries}
        return Paths(os.fsencode(folder),
                     {**{os.fsencode(name): os.fsencode(path) for name, path in typed.items()},
                      **entries}, {**resolved, **inputs}, os.fsencode(f"{part}/out"), out,
                     self._slice.first)


def command_of(plan: Plan) -> ToolCommand:
    """The tool's command of a run."""
    return parse_command(plan.command, "")
