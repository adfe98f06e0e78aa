"""quilmrun-boards: runs the tool's command line on boards and brings back one run."""

from __future__ import annotations

import argparse
import shutil
from pathlib import Path

from quilmrun_tools.artifacts.board_results import read_board_results
from quilmrun_tools.boards import check, engine, merge, target
from quilmrun_tools.boards.run import BoardRun, check_memory_report
from quilmrun_tools.boards.settings import Settings, read_hosts
from quilmrun_tools.boards.tool_command import ToolCommand, parse_command
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.executable import find_quilmrun
from quilmrun_tools.common.parser import Parser
from quilmrun_tools.common.streams import Streams

_NAME = "quilmrun-boards"
_EXAMPLES = """\
  quilmrun-boards -H root@board -- quilmrun -m model.om -i inputs/list.txt -j quilm.json -o out
  quilmrun-boards -F boards.txt --record -- quilmrun -m model.om -i list.txt -j quilm.json -o out
  quilmrun-boards -F boards.txt --check
"""


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion; returns its exit status."""
    own, words = _split(arguments)
    options = _parser().parse_args(own)
    settings = _settings(options)
    if options.check:
        return check.check_boards(settings, words, streams)
    return _run(settings, parse_command(words, "mijo"), streams)


def _split(arguments: list[str]) -> tuple[list[str], list[str]]:
    """The companion's own arguments, and the tool's command after "--"."""
    if "--" not in arguments:
        return arguments, []
    at = arguments.index("--")
    return arguments[:at], arguments[at + 1:]


def _run(settings: Settings, command: ToolCommand, streams: Streams) -> int:
    engine.find_programs()
    check_memory_report(command)
    with target.opened(command.last("o"), settings.resume) as (state, earlier):
        if earlier and not (state.root / "plan.json").exists() and earlier.status == Status.YES:
            return _show_finished(earlier.path, streams)
        run = BoardRun(settings, command, local_tool(command.tool), state, earlier, streams)
        try:
            reason = run.work() if run.prepare() else ""
        except (KeyboardInterrupt, SystemExit):
            run.finish("interrupted")
            raise
        return run.finish(reason or state.stopped.removeprefix("error: "))


def _show_finished(path: str, streams: Streams) -> int:
    """Of a run that is resumed and has nothing missing."""
    results = read_board_results(path)
    out = getattr(streams.out, "buffer", None)
    if out:
        merge.show(Path(path).parent / merge.LOG_NAME, out.write)
    return results.status


def local_tool(name: str) -> str:
    """The tool of this machine, for boards with the same processor; empty when there is none."""
    try:
        return shutil.which(name) or find_quilmrun(None)
    except Unreadable:
        return ""


def _settings(options: argparse.Namespace) -> Settings:
    if "\n" in options.remote_dir or not options.remote_dir.startswith("/"):
        raise Unreadable("--remote-dir is an absolute path on the boards")
    for name in ("part", "timeout", "silence"):
        if getattr(options, name) is not None and getattr(options, name) < 1:
            raise Unreadable(f"--{name} is at least 1")
    return Settings(
        read_hosts(options.host, options.hosts_file), options.ssh_config, options.remote_dir,
        options.remote_library_path, options.tool, options.remote_tool, options.record,
        options.without_text, options.keep, options.part or 0, options.timeout, options.silence,
        options.resume)


def _parser() -> Parser:
    parser = Parser(_NAME, "Runs the tool on one board or on many, and brings back one run.",
                    _EXAMPLES, usage=f"{_NAME} (-H HOST | -F FILE) [options] -- quilmrun -m ...")
    boards = parser.add_argument_group("boards")
    boards.add_argument("-H", "--host", metavar="HOST", action="append", default=[],
                        help="a board, as ssh takes it; may be given more than once")
    boards.add_argument("-F", "--hosts-file", metavar="FILE", default="",
                        help="a file with a board on each line")
    boards.add_argument("--ssh-config", metavar="FILE", default="",
                        help="the configuration of ssh, instead of the user's")
    boards.add_argument("--remote-dir", metavar="DIR", default="/var/tmp",
                        help="where a board has room; /var/tmp if not given")
    boards.add_argument("--remote-library-path", metavar="DIR", default="",
                        help="where a board has its libquilm.so, if the loader does not find it")
    boards.add_argument("--tool", metavar="FILE", action="append", default=[],
                        help="executable or board package of the tool; may be given more than once")
    boards.add_argument("--remote-tool", metavar="PATH", default="",
                        help="the tool that is on the boards already")
    run = parser.add_argument_group("the run")
    run.add_argument("--record", action="store_true",
                     help="record the calls of the runtime, in record.json beside the outputs")
    run.add_argument("--without-text", action="store_true",
                     help="leave the text files of the outputs on the board")
    run.add_argument("--part", metavar="N", type=int, help="inferences of a part")
    run.add_argument("--timeout", metavar="SECONDS", type=int, default=60,
                     help="for an inference, or the load of the model; 60 if not given")
    run.add_argument("--silence", metavar="SECONDS", type=int, default=30,
                     help="after which a board counts as gone; 30 if not given")
    run.add_argument("--resume", action="store_true",
                     help="go on with a run that was not finished")
    run.add_argument("--keep", action="store_true", help="leave everything on the boards as it is")
    parser.add_argument("--check", action="store_true",
                        help="only show what there is on each board")
    return parser
