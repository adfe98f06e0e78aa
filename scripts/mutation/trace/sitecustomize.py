"""Loaded by every Python that the tests start: notes which lines of the companions run.

Each line is written when it first runs, so that nothing is lost of processes that end without
Python's own clean-up, as those do that a test forks, kills or has leave by os._exit(). That is what
Debian's python3-coverage does not give.
"""

import fcntl
import os
import sys
import threading

_FOLDER = os.environ.get("QUILMRUN_TRACED_FOLDER", "")
_FILE = os.environ.get("QUILMRUN_TRACE_FILE", "")


def _start() -> None:
    target = os.open(_FILE, os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o666)
    # High, so that no test that counts or closes descriptors meets it.
    target = fcntl.fcntl(target, fcntl.F_DUPFD_CLOEXEC, 200)
    seen = set()

    def line(frame, event, _argument):  # type: ignore[no-untyped-def]
        place = frame.f_code.co_filename, frame.f_lineno
        if event == "line" and place not in seen:
            seen.add(place)
            os.write(target, f"{os.path.realpath(place[0])}:{place[1]}\n".encode())
        return line

    def call(frame, _event, _argument):  # type: ignore[no-untyped-def]
        return line if _FOLDER in frame.f_code.co_filename else None

    sys.settrace(call)
    threading.settrace(call)


if _FILE:
    _start()
