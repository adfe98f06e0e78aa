"""GNU parallel, which says when which job begins; what a job did is told by its receipt alone."""

from __future__ import annotations

import os
import shlex
import shutil
import signal
import subprocess
import sys
from pathlib import Path
from typing import Callable, Iterable

from quilmrun_tools.boards.state import State
from quilmrun_tools.common.errors import Unreadable

_HOME = Path(__file__).resolve().parents[2]
_BEGIN = ("import os, sys; sys.path.insert(0, os.environ['QUILMRUN_BOARDS_HOME']); "
          "from quilmrun_tools.boards import job; sys.exit(job.main())")
_END = 45.0  # seconds in which the jobs in progress end their tools and tidy up


def find_programs() -> None:
    """Raises Unreadable when parallel or ssh are not there."""
    missing = [package for program, package in (("parallel", "parallel"),
                                                ("ssh", "openssh-client"))
               if not shutil.which(program)]
    if missing:
        raise Unreadable(f"programs are missing: apt install {' '.join(missing)}")


def run_jobs(state: State, jobs: Iterable[str], slots: int, look: Callable[[], None]) -> str:
    """Runs jobs, so many at once; `look` is called now and then. Returns why it was not all.
    However this is left, no job of it is."""
    (state.root / "queue").write_text("".join(f"{job}\n" for job in jobs), encoding="ascii")
    alive, own_end = os.pipe()
    # pylint: disable-next=consider-using-with  # it outlives this function
    process = subprocess.Popen(  # pylint: disable=consider-using-with  # _leave() waits
        ["parallel", "--plain", "--will-cite", "--ungroup", "--halt", "soon,fail=1",
         "-j", str(slots), "-a", "queue", _job_command()],
        env=_environment(state, alive), cwd=state.root, stdin=subprocess.DEVNULL, pass_fds=(alive,),
        start_new_session=True)
    os.close(alive)
    try:
        while True:
            try:
                process.wait(0.2)
                break
            except subprocess.TimeoutExpired:
                look()
    except BaseException:
        state.stop("interrupted")
        raise
    finally:
        _leave(state, process, own_end)
    if process.returncode < 0:
        return f"parallel was ended by {signal.Signals(-process.returncode).name}"
    if process.returncode not in (0, 1) and not state.stopped:
        return f"parallel, which has to be GNU parallel, ended with {process.returncode}"
    return ""


def _leave(state: State, process: "subprocess.Popen[bytes]", own_end: int) -> None:
    """Waits for the jobs; closing the pipe asks them to end."""
    if process.poll() is None:
        process.send_signal(signal.SIGHUP)  # begin no more
    elif process.returncode < 0:
        state.stop("parallel was ended")
    if process.poll() is None or process.returncode != 0:
        state.wait_for_jobs(_END)
    os.close(own_end)
    state.wait_for_jobs(_END)
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def _job_command() -> str:
    return f"exec {shlex.quote(sys.executable)} -S -c {shlex.quote(_BEGIN)} {{}}"


def _environment(state: State, alive: int) -> dict[str, str]:
    """That of the jobs, whose modules are compiled once for all of them."""
    changed = {"QUILMRUN_BOARDS_HOME": str(_HOME), "QUILMRUN_BOARDS_OUT": str(state.out.absolute()),
               "QUILMRUN_BOARDS_ALIVE": str(alive), "SHELL": "/bin/sh", "PARALLEL_SHELL": "/bin/sh",
               "QUILMRUN_BOARDS_FROM": os.getcwd(),
               "PYTHONPYCACHEPREFIX": str(state.root.absolute() / "compiled")}
    kept = {name: value for name, value in os.environ.items() if name != "PYTHONDONTWRITEBYTECODE"}
    return {**kept, **changed}
