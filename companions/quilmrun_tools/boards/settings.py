"""What the user asked for, beside the tool's command."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Sequence

from quilmrun_tools.boards.connection import ssh_command
from quilmrun_tools.boards.plan import Plan
from quilmrun_tools.common.errors import Unreadable


@dataclass
class Settings:
    """The options."""
    hosts: list[str]
    ssh_config: str = ""
    remote_dir: str = "/var/tmp"
    library_path: str = ""
    tools: list[str] = field(default_factory=list)
    remote_tool: str = ""
    record: bool = False
    without_text: bool = False
    keep: bool = False
    part: int = 0  # inferences; 0 leaves it to the companion
    timeout: int = 60
    silence: int = 30
    resume: bool = False

    def plan(self, run: str, command: Sequence[str], local_tool: str) -> Plan:
        """The part of a plan that is known before any board has answered."""
        return Plan(run, list(command), self.hosts, ssh_command(self.ssh_config, self.silence),
                    self.remote_dir, self.library_path, self.remote_tool, self.tools, self.record,
                    self.without_text, self.keep, self.timeout, self.silence, local_tool)


def read_hosts(named: Sequence[str], file: str) -> list[str]:
    """The boards of -H and of the lines of a file, in which # begins a comment."""
    lines = list(named)
    if file:
        try:
            with open(file, encoding="utf-8") as text:
                lines += [line.partition("#")[0].strip() for line in text]
        except (OSError, ValueError) as error:
            raise Unreadable(f"cannot read {file}: {error}") from error
    hosts = list(dict.fromkeys(line for line in lines if line))
    for host in hosts:
        if host.startswith("-") or any(letter.isspace() for letter in host):
            raise Unreadable(f"{host!r} names no board: write it as ssh takes it, as root@board")
    if not hosts:
        raise Unreadable("name a board with -H, or a file with a board on each line with -F")
    return hosts
