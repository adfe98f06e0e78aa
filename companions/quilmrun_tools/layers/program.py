"""quilmrun-layers: which layer goes wrong?"""

from __future__ import annotations

from quilmrun_tools.common.streams import Streams
from quilmrun_tools.layers import commands, find, make


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion."""
    command = arguments[:1]
    if command == ["probe"]:
        return make.run(commands.probe_parser().parse_args(arguments[1:]), streams)
    if command == ["find"]:
        return find.run(commands.find_parser().parse_args(arguments[1:]), streams)
    commands.top_parser().parse_args(arguments[:1])
    return 2
