#!/usr/bin/python3
"""arrows.py [ROOT]: checks that every folder includes or imports only folders below it. Shows what
is wrong, a line each, and ends with 1 when there is any. docs/architecture.md draws the arrows."""

import ast
import re
import sys
from collections import defaultdict
from pathlib import Path
from typing import Iterator

# What each folder of C++ may include from, besides itself. Folders that are not named are on top:
# they may include any, except that nobody includes from tests.
BELOW = {
    "base": (),
    "runtime": ("base",),
    "runtime/host": ("base", "runtime", "runtime/interposer"),
    "runtime/interposer": ("runtime",),
    "runtime/scripted": ("runtime", "runtime/interposer"),
    "profile": ("base", "runtime"),
    "input": ("base", "runtime"),
    "output": ("base", "runtime"),
    "model": ("base", "runtime", "profile", "input", "output"),
    "app": ("base", "runtime", "profile", "input", "output", "model"),
    "companions/recorder": ("runtime", "runtime/interposer"),
    "bench": ("base", "runtime", "runtime/interposer", "profile", "input", "output", "model",
              "app"),
}
TOOLS = "companions/quilmrun_tools"
# Every other folder of TOOLS is the room of one program, which imports these two.
BELOW_ROOMS = {"common": (), "artifacts": ("common",)}


def included(root: Path) -> Iterator[str]:
    """Includes of what is not below."""
    for path in sorted(root.rglob("*")):
        folder = str(path.parent.relative_to(root))
        if path.suffix not in (".cpp", ".h", ".c") or folder.startswith(("build", ".git")):
            continue
        for number, line in enumerate(path.read_text().splitlines(), 1):
            target = re.match(r'\s*#\s*include "([^"]+)/[^/"]+"', line)
            if target and target[1] != folder and \
                    (target[1] not in BELOW.get(folder, BELOW) and not folder.startswith("tests")):
                yield f"{path.relative_to(root)}:{number}: {folder} must not include {target[1]}"


def compiled(root: Path) -> Iterator[str]:
    """Sources of tests in the build of anything else."""
    for path in sorted(root.rglob("CMakeLists.txt")):
        name = str(path.relative_to(root))
        if not name.startswith(("build", "tests")):
            for number, line in enumerate(path.read_text().splitlines(), 1):
                if re.search(r"\btests/.*\.(c|cpp)\b", line):
                    yield f"{name}:{number}: only tests may compile what is in tests"


def imported(tree: ast.Module, package: list[str]) -> Iterator[tuple[int, list[str]]]:
    """The line and the parts of the name of every module that is imported, at any depth."""
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            for alias in node.names:
                yield node.lineno, alias.name.split(".")
        elif isinstance(node, ast.ImportFrom):
            base = package[:len(package) - node.level + 1] if node.level else []
            module = base + (node.module.split(".") if node.module else [])
            for alias in node.names:
                yield node.lineno, [*module, alias.name]
        elif isinstance(node, ast.Constant) and isinstance(node.value, str) and \
                re.fullmatch(r"quilmrun_tools(\.\w+)+", node.value):  # for importlib
            yield node.lineno, node.value.split(".")


def rooms(root: Path) -> Iterator[str]:
    """Imports of what is not below, modules outside the rooms, and second classes of a name."""
    classes: dict[str, list[str]] = defaultdict(list)
    tools = root / TOOLS
    for path in sorted(tools.rglob("*.py")):
        name = path.relative_to(root)
        parts = path.relative_to(tools).parts
        if len(parts) == 1:
            if parts[0] != "__init__.py":
                yield f"{name}: a module outside the rooms"
            continue
        tree = ast.parse(path.read_text())
        for number, module in imported(tree, ["quilmrun_tools", *parts[:-1]]):
            below = ("__version__", parts[0], *BELOW_ROOMS.get(parts[0], BELOW_ROOMS))
            if module[0] == "quilmrun_tools" and len(module) > 1 and module[1] not in below:
                yield f"{name}:{number}: {parts[0]} must not import {module[1]}"
        for node in ast.walk(tree):
            if isinstance(node, ast.ClassDef):
                classes[node.name].append(f"{name}:{node.lineno}")
    for title, places in classes.items():
        if len(places) > 1:
            yield f"{places[1]}: a second class {title}, beside that of {places[0]}"


def main(root: Path) -> int:
    wrong = [*included(root), *compiled(root), *rooms(root)]
    print(*wrong, sep="\n", end="\n" if wrong else "")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).resolve().parents[1]))
