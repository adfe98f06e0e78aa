"""One connection to a board: ssh with the far side's script, what goes there and what comes back.

ssh does what the user's configuration says. The script goes ahead of everything else on standard
input; while it works, it hears a line every second, and says how far it is about as often. Who
hears nothing for a while ends, on either side.
"""
# Each attempt begins with its own state, which no other one sees.
# pylint: disable=attribute-defined-outside-init

from __future__ import annotations

import os
import selectors
import shlex
import signal
import subprocess
import time
from pathlib import Path
from typing import Callable, Iterator, Optional

from quilmrun_tools.boards.plan import Plan

_REMOTE = Path(__file__).with_name("remote.sh")
_READ = 1 << 18
_NOISE = 1 << 16  # bytes that a login may print
_GRACE = 20.0  # seconds for the far side to end the tool

Say = Callable[[str, str], None]  # a word of the script and what follows it
Feed = Callable[[bytes], None]


def ssh_command(config: str, silence: int) -> list[str]:
    """ssh and the options that every connection has. Nobody is there to be asked anything."""
    options = ("BatchMode=yes", f"ConnectTimeout={silence}", "ServerAliveInterval=5",
               f"ServerAliveCountMax={max(silence // 5, 1)}", "ClearAllForwardings=yes",
               "PermitLocalCommand=no", "RemoteCommand=none", "RequestTTY=no")
    return ["ssh", "-ax", *(["-F", config] if config else []),
            *(word for option in options for word in ("-o", option))]


def _script() -> bytes:
    """The far side's script without its comments."""
    lines = _REMOTE.read_bytes().splitlines(keepends=True)
    return b"".join(line for line in lines if not line.lstrip().startswith(b"#"))


class Connection:
    """A process of ssh. REQUIRES: run() is called once."""

    def __init__(self, plan: Plan, host: str, kind: str, part: str) -> None:
        self._plan = plan
        self._token = f"@{plan.run}"
        script = _script()
        start = f's=$(dd bs=1 count={len(script)} 2> /dev/null); eval "$s"'
        words = ["sh", "-c", start, "sh", plan.remote_dir, f"quilmrun-{plan.run}", self._token,
                 kind, part, str(plan.timeout), str(plan.silence), "yes" if plan.keep else "",
                 plan.library_path]
        self._outgoing = memoryview(script)
        self._archive: Optional[Iterator[bytes]] = None
        self._is_busy = False  # with a part, which listens for signs of life
        self.noise = ""  # the last thing that was said by others, as ssh itself
        self.problem = ""  # why the connection was given up
        self._say: Say = lambda word, rest: None
        self._feed: Feed = lambda data: None
        self._lines = b""  # the beginning of one that is not whole
        self._before = b""  # what came ahead of the archive
        self._in_archive = False
        self._heard = time.monotonic()
        self._selector = selectors.DefaultSelector()
        # pylint: disable-next=consider-using-with  # ended by close()
        self._process = subprocess.Popen(  # pylint: disable=consider-using-with  # _end() waits
            [*plan.ssh, "--", host, "exec " + shlex.join(words)], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        assert self._process.stdin
        self._input: Optional[int] = self._process.stdin.fileno()

    def send(self, archive: Iterator[bytes]) -> None:
        """Sends this next; from then on lines that say that somebody is there."""
        self._archive = archive
        self._is_busy = True

    def run(self, say: Say, feed: Feed, stopped: Callable[[], bool]) -> int:
        """Talks until the connection ends, and returns ssh's status. `say` hears the far side's
        words, `feed` gets its archive; what these raise ends the connection."""
        self._say, self._feed = say, feed
        try:
            self._talk(stopped)
        except BaseException:
            self.problem = self.problem or "given up"
            raise
        finally:
            self._close_input()
            status = self._end()
        return status

    # ---- While it lasts ---------------------------------------------------------------------

    def _talk(self, stopped: Callable[[], bool]) -> None:
        process = self._process
        assert process.stdin and process.stdout and process.stderr
        streams: dict[int, Feed] = {
            process.stdout.fileno(): self._hear, process.stderr.fileno(): self._read_lines}
        with self._selector:
            for descriptor in (process.stdin.fileno(), *streams):
                os.set_blocking(descriptor, False)
            for descriptor in streams:
                self._selector.register(descriptor, selectors.EVENT_READ)
            self._heard = time.monotonic()
            self._follow(streams, stopped)

    def _follow(self, streams: dict[int, Feed], stopped: Callable[[], bool]) -> None:
        """Until ssh ends, or there is a reason to give up."""
        due = 0.0
        while streams:
            self._want_to_write()
            for key, _ in self._selector.select(0.25):
                if key.fd == self._input:
                    self._write()
                elif not self._read(key.fd, streams):
                    self._selector.unregister(key.fd)
                    del streams[key.fd]
            if self._process.poll() is not None:
                self._drain(streams)
                return
            now = time.monotonic()
            if now - self._heard > self._plan.silence:
                self.problem = f"no answer for {self._plan.silence} s"
                return
            if now >= due:
                due = now + 0.5
                if stopped():
                    self.problem = "stopped"
                    return
                if self._is_busy and self._archive is None and not self._outgoing:
                    self._outgoing = memoryview(b"\n")

    def _drain(self, streams: dict[int, Feed]) -> None:
        """What is left when ssh has ended; a process that it left behind may hold the streams."""
        for descriptor in streams:
            while self._read(descriptor, streams):
                pass

    def _read(self, descriptor: int, streams: dict[int, Feed]) -> bool:
        """Whether there may be more; nothing now is no end."""
        try:
            data = os.read(descriptor, _READ)
        except BlockingIOError:
            return self._process.poll() is None
        if data:
            self._heard = time.monotonic()
            streams[descriptor](data)
        return bool(data)

    def _want_to_write(self) -> None:
        if not self._outgoing and self._archive is not None:
            chunk = next(self._archive, None)
            if chunk is None:
                self._archive = None
            else:
                self._outgoing = memoryview(chunk)
        known = self._input is not None and self._input in self._selector.get_map()
        if self._input is not None and bool(self._outgoing) != known:
            if known:
                self._selector.unregister(self._input)
            else:
                self._selector.register(self._input, selectors.EVENT_WRITE)

    def _write(self) -> None:
        assert self._input is not None
        try:
            sent = os.write(self._input, self._outgoing)
        except BlockingIOError:
            return
        except OSError:  # ssh is about to end, and says why
            self._selector.unregister(self._input)
            self._input, self._archive, self._outgoing = None, None, memoryview(b"")
            return
        if len(self._outgoing) > 1:
            self._heard = time.monotonic()
        self._outgoing = self._outgoing[sent:]

    # ---- What comes back --------------------------------------------------------------------

    def _hear(self, data: bytes) -> None:
        if not self._in_archive:
            mark = f"{self._token} tar\n".encode()
            self._before += data
            before, found, data = self._before.partition(mark)
            if not found:
                self._before = before[-_NOISE:]
                return
            self._in_archive, self._before = True, b""
        self._feed(data)

    def _read_lines(self, data: bytes) -> None:
        *lines, self._lines = (self._lines + data)[-_NOISE:].split(b"\n")
        for line in lines:
            text = line.decode("utf-8", "surrogateescape").rstrip("\r")
            if text.startswith(self._token + " "):
                word, _, rest = text[len(self._token) + 1:].partition(" ")
                self._say(word, rest)
            elif text.strip():
                self.noise = text.strip()[:300]

    # ---- The end ----------------------------------------------------------------------------

    def _close_input(self) -> None:
        """Tells the far side that nobody listens any more; it ends the tool and tidies up."""
        try:
            assert self._process.stdin
            self._process.stdin.close()
        except OSError:
            pass

    def _end(self) -> int:
        """Waits for ssh, for as long as the far side may need."""
        try:
            if self.problem == "stopped":
                self._discard()
            return self._process.wait(0.0 if self.problem else _GRACE)
        except subprocess.TimeoutExpired:
            self._process.send_signal(signal.SIGTERM)
        try:
            return self._process.wait(2)
        except subprocess.TimeoutExpired:
            self._process.kill()
            return self._process.wait()
        finally:
            for stream in (self._process.stdout, self._process.stderr):
                if stream:
                    stream.close()

    def _discard(self) -> None:
        """Reads on, so that ssh can end."""
        end = time.monotonic() + _GRACE
        while self._process.poll() is None and time.monotonic() < end:
            for stream in (self._process.stdout, self._process.stderr):
                assert stream
                try:
                    while os.read(stream.fileno(), _READ):
                        pass
                except OSError:
                    pass
            time.sleep(0.05)
