"""The command line that all companions have in common."""

import argparse
from typing import Any, NoReturn

from quilmrun_tools import __version__
from quilmrun_tools.common.errors import Unreadable


class Parser(argparse.ArgumentParser):
    """argparse with the conventions of the companions: one line for every misuse, no abbreviated
    options, `--version`, `--traceback`, examples below the options."""

    def __init__(self, name: str, description: str, examples: str = "", **options: Any) -> None:
        super().__init__(prog=name, description=description, allow_abbrev=False,
                         epilog=f"examples:\n{examples}" if examples else None,
                         formatter_class=argparse.RawDescriptionHelpFormatter, **options)
        self.add_argument("--version", action="version", version=f"{name} {__version__}")
        self.add_argument("--traceback", action="store_true",
                          help="show where in the companion a failure arose")

    def error(self, message: str) -> NoReturn:
        raise Unreadable(f"{message}; see {self.prog} --help")

    def add_json(self) -> None:
        """Adds --json, which every companion has."""
        self.add_argument("--json", metavar="FILE",
                          help="also write the result as JSON; - is standard output, and nothing "
                               "else is written there")
