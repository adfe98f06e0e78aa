"""Boards for tests: sshd's on loopback, without privileges, with keys and folders of their own."""

import getpass
import os
import pathlib
import signal
import socket
import subprocess
import threading
import time

SSHD = "/usr/sbin/sshd"
_LIFE = "900"  # seconds after which a daemon ends whatever happens


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Board:
    """One sshd. `environment` is what its sessions find, PATH for one; `within` is a command that
    runs another."""

    def __init__(self, root, name, environment=(), within=()):
        self.name = name
        self.dir = pathlib.Path(root) / name
        self.dir.mkdir()
        self.port = free_port()
        self.within = within
        self._environment = " ".join(f'"{key}={value}"' for key, value in dict(environment).items())
        self.process = None

    def start(self, keys):
        config = self.dir / "sshd_config"
        config.write_text(f"""\
ListenAddress 127.0.0.1
Port {self.port}
HostKey {keys}/host
AuthorizedKeysFile {keys}/user.pub
StrictModes no
UsePAM no
PasswordAuthentication no
KbdInteractiveAuthentication no
PidFile none
LogLevel QUIET
MaxStartups 100
""" + (f"SetEnv {self._environment}\n" if self._environment else ""))
        self.process = subprocess.Popen(["timeout", _LIFE, *self.within, SSHD, "-D", "-e", "-f", config],
                                        stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        start_new_session=True)
        for _ in range(100):
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) == 0:
                    return
            time.sleep(0.05)
        raise RuntimeError(f"sshd of {self.name} does not answer")

    def stop(self):
        """Ends the daemon and its sessions, as a loss of power would."""
        for pid in descendants(self.process.pid)[::-1] if self.process else ():
            try:
                if "sshd" in pathlib.Path(f"/proc/{pid}/comm").read_text():
                    os.kill(pid, signal.SIGKILL)
            except (FileNotFoundError, ProcessLookupError):
                pass
        if self.process:
            self.process.wait()
        self.process = None


class SlowProxy:
    """Hands every packet on to a port, 50 ms later."""

    def __init__(self, port):
        self._target = port
        self._server = socket.create_server(("127.0.0.1", 0))
        self.port = self._server.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                near, _ = self._server.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(near,), daemon=True).start()

    def _serve(self, near):
        with near, socket.create_connection(("127.0.0.1", self._target)) as far:
            back = threading.Thread(target=self._pass, args=(far, near), daemon=True)
            back.start()
            self._pass(near, far)
            back.join()

    @staticmethod
    def _pass(source, target):
        try:
            while data := source.recv(1 << 16):
                time.sleep(0.05)
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    def stop(self):
        self._server.close()


def descendants(pid):
    """A process and all that it has started, as long as their parents live."""
    parents = {}
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = stat.read_text(errors="replace").rpartition(")")[2].split()
        except (FileNotFoundError, ProcessLookupError):
            continue
        parents.setdefault(int(fields[1]), []).append(int(stat.parent.name))
    found = [pid]
    for one in found:
        found += parents.get(one, [])
    return found


class Boards:
    """A number of them with one folder for their parts, and the configuration of ssh that knows
    their ports. `environments` and `within` are by name."""

    def __init__(self, root, names, environments=None, within=None):
        self.root = pathlib.Path(root)
        self.room = self.root / "var tmp"
        self.room.mkdir(parents=True)
        keys = self.root / "keys"
        keys.mkdir()
        for name in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", keys / name],
                           check=True)
        if os.geteuid() == 0:
            os.makedirs("/run/sshd", mode=0o755, exist_ok=True)  # for its separation of privileges
        self.boards = {name: Board(self.root, name, (environments or {}).get(name, {}),
                                   (within or {}).get(name, ()))
                       for name in names}
        self._keys = keys
        for board in self.boards.values():
            board.start(keys)
        self.config = self.root / "ssh_config"
        self.write_config()

    def write_config(self, ports=None):
        """`ports` are other ones than the boards' own, by name."""
        self.config.write_text("".join(f"""\
Host {board.name}
  HostName 127.0.0.1
  Port {(ports or {}).get(board.name, board.port)}
  User {getpass.getuser()}
  HostKeyAlias board
  IdentityFile {self._keys}/user
  IdentitiesOnly yes
  UserKnownHostsFile {self._keys}/known_hosts
""" for board in self.boards.values()))
        (self._keys / "known_hosts").write_text("board " + (self._keys / "host.pub").read_text())

    def restart(self, name):
        self.boards[name].start(self._keys)

    def stop(self):
        for board in self.boards.values():
            board.stop()
