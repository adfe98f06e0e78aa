"""Faults made by rule: for a line of C++ or Python, all ways in which it may be slightly wrong."""

import ast
import random
import re
from pathlib import Path
from typing import Callable, Iterator, NamedTuple

from mutation.faults import ROOT, Fault, equivalent

FOLDERS = ("base", "runtime", "profile", "input", "output", "model", "app", "companions")
_OF_TESTS = "runtime/scripted"


class Token(NamedTuple):
    kind: str  # "string", "comment", "number", "name", "operator", "blank"
    text: str
    start: int


class Line(NamedTuple):
    """A line and what its language says about it."""

    text: str
    tokens: list[Token]
    python: bool
    statement: bool  # it is one whole statement that could be left out


Replacement = tuple[int, int, str]  # from, to, what stands there instead

_TOKEN = r"""(?P<string>[rbfuRBFU]{0,2}"(?:\\.|[^"\\])*"|[rbf]{0,2}'(?:\\.|[^'\\])*')
            |(?P<comment>%s.*)
            |(?P<number>\b\d(?:[eE][-+]|[\w.])*)
            |(?P<name>[A-Za-z_]\w*)
            |(?P<blank>\s+)
            |(?P<operator>->|\+\+|--|<<|>>|[<>=!+*/%%&|^-]=|&&|\|\||::|\*\*|.)"""
_TOKENS = {python: re.compile(_TOKEN % (r"\#" if python else "//"), re.VERBOSE)
           for python in (False, True)}

# What is exchanged for what; operators only between blanks, where they are no signs or brackets.
_OPERATORS = {"<": ("<=", ">"), "<=": ("<", ">="), ">": (">=", "<"), ">=": (">", "<="),
              "==": ("!=",), "!=": ("==",), "+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",),
              "//": ("*",), "%": ("*",), "&&": ("||",), "||": ("&&",), "+=": ("-=", "="),
              "-=": ("+=",), "<<": (">>",), "&": ("|",), "|": ("&",)}
_WORDS = {"and": ("or",), "or": ("and",), "min": ("max",), "max": ("min",), "any": ("all",),
          "all": ("any",), "true": ("false",), "false": ("true",), "True": ("False",),
          "False": ("True",), "front": ("back",), "back": ("front",), "break": ("continue",),
          "continue": ("break",)}
_WIDTHS = {"uint8_t": ("int8_t",), "int8_t": ("uint8_t",), "uint16_t": ("int16_t",),
           "int16_t": ("uint16_t",), "uint32_t": ("uint16_t",), "int32_t": ("int16_t",),
           "int64_t": ("int32_t",), "uint64_t": ("uint32_t",),
           "float": ("double",), "double": ("float",), "float64": ("float32",),
           "float32": ("float64", "float16"), "uint8": ("int8",), "int8": ("uint8",),
           "int32": ("int16",), "int64": ("int32",), "uint16": ("int16",), "int16": ("uint16",)}
_FORMATS = {r"(?<=\.)(\d)(?=l?[feg]\b)": ("0", "1"), r"(?<=%)d": ("x",), r"(?<=%)u": ("d",),
            r"(?<=[\"'])<(?=[iuf]\d)": (">",), r"(?<=[iuf])4(?=[\"'])": ("2", "8"),
            r"(?<=%l)d": ("x",)}


def _between_blanks(line: Line, index: int) -> bool:
    around = line.tokens[max(index - 1, 0):index + 2]
    return len(around) == 3 and around[0].kind == around[2].kind == "blank"


def exchanged(line: Line) -> Iterator[Replacement]:
    """Comparisons and signs turned, constants of truth, the least for the greatest; widths."""
    for index, (kind, text, start) in enumerate(line.tokens):
        others: tuple[str, ...] = ()
        in_type = line.python and text == "|"
        if kind == "operator" and _between_blanks(line, index) and not in_type:
            others = _OPERATORS.get(text, ())
        elif kind == "name" and not (line.python and text in ("float", "double")):
            others = _WORDS.get(text, ()) + _WIDTHS.get(text, ())
        for other in others:
            yield start, start + len(text), other


def moved(line: Line) -> Iterator[Replacement]:
    """Bounds moved by one."""
    for kind, text, start in line.tokens:
        if kind == "number" and text.isdigit():
            yield start, start + len(text), str(int(text) + 1)
            if int(text) > 0:
                yield start, start + len(text), str(int(text) - 1)
    size = r"\blen\((?:[^()]|\(\))*\)" if line.python else r"[\w.>\-()\[\]]+[.>]size\(\)"
    for match in re.finditer(size, line.text):
        yield match.end(), match.end(), " - 1"


def changed(line: Line) -> Iterator[Replacement]:
    """Constants with another value: numbers, and words that are no sentences."""
    for kind, text, start in line.tokens:
        end = start + len(text)
        if kind == "number":
            yield start, end, "7" if text in ("0", "0.0") else "0"
            if text.isdigit() and int(text) > 1:
                yield start, end, str(int(text) * 2)
            elif re.fullmatch(r"\d*\.\d*(e[-+]?\d+)?|\d+e[-+]?\d+", text) and float(text) > 0:
                yield start, end, str(float(text) * 2)
        elif kind == "string" and re.fullmatch(r"[\"'][\w./-]+[\"']", text) and \
                not re.search(r"\b(help|metavar|description|unit)\b", line.text):
            yield start, end, text[:-2] + "_" + text[-1]


def negated(line: Line) -> Iterator[Replacement]:
    """Conditions that are the opposite."""
    condition = r"\s*(?:el)?if (?P<c>.+):(?:\s*#.*)?" if line.python else \
        r"\s*(?:\} else )?if \((?P<c>.+)\) \{"
    match = re.fullmatch(condition, line.text)
    if match and match["c"].count("(") == match["c"].count(")") and ";" not in match["c"]:
        yield *match.span("c"), f"not ({match['c']})" if line.python else f"!({match['c']})"


def left_out(line: Line) -> Iterator[Replacement]:
    """Statements that are not there."""
    if line.statement:
        start = len(line.text) - len(line.text.lstrip())
        yield start, len(line.text), "pass" if line.python else ";"


def _arguments(line: Line, opening: int) -> list[tuple[int, int]]:
    """From and to of each argument of the call whose bracket is at the token `opening`; none when
    the call goes on in the next line."""
    depth, parts, start = 0, [], line.tokens[opening].start + 1
    for token in line.tokens[opening:]:
        if token.text in "([{":
            depth += 1
        elif token.text in ")]}":
            depth -= 1
        if token.kind == "operator" and (depth == 1 and token.text == "," or depth == 0):
            parts.append((start, token.start))
            start = token.start + 1
        if depth == 0:
            return parts
    return []


# An argument that is the declaration of a parameter, or goes by its name.
_DECLARED = re.compile(r"[\w>*&] [*&]?\w+$|^\*|\w=[^=]", re.MULTILINE)


def swapped(line: Line) -> Iterator[Replacement]:
    """Calls with two arguments exchanged."""
    if re.match(r"\s*(def|class|for|import|from) ", line.text) or line.text[:1] not in (" ", "\t"):
        return
    for index, token in enumerate(line.tokens):
        called = line.tokens[index - 1] if token.text == "(" and index > 0 else token
        if called.kind != "name" or called.text in ("min", "max"):
            continue
        parts = _arguments(line, index)
        for (start, middle), (after, end) in zip(parts, parts[1:]):
            first, second = line.text[start:middle].strip(), line.text[after:end].strip()
            if first != second and not _DECLARED.search(f"{first}\n{second}"):
                yield start, end, f"{' ' * (start and line.text[start] == ' ')}{second}, {first}"


def formatted(line: Line) -> Iterator[Replacement]:
    """Another width, precision or byte order where values become text or bytes."""
    for kind, text, start in line.tokens:
        if kind == "string":
            for pattern, others in _FORMATS.items():
                for match in re.finditer(pattern, text):
                    yield from ((start + match.start(), start + match.end(), other)
                                for other in others if other != match[0])


RULES: tuple[Callable[[Line], Iterator[Replacement]], ...] = (
    exchanged, moved, changed, negated, left_out, swapped, formatted)

_NO_CODE = re.compile(r"\s*(#|//|using |namespace|template|static_assert|extern |class |struct |"
                      r"friend |"
                      r"public:|private:|import |from |@|__all__|__version__|.*\\$|"
                      r"def (?!.*: [\w\[\], .|]+ = )|(?!def ).*\) -> |$)")
# A type and a name after it, or what leaves a function: without these nothing compiles.
_DECLARES = re.compile(r"\s*(const|auto|static|constexpr|return|case|typedef|goto|throw)\b|"
                       r"\s*[\w:]+(<.*>)?[*&]* [*&]?\w+( =|;|\{|\(|\[)|.*\boverride;|"
                       r".*= (default|delete);")


def _cpp_statements(lines: list[str]) -> set[int]:
    """Numbers of the lines, from 1, that are one statement each without which the rest compiles."""
    found = set()
    before = ""
    for number, text in enumerate(lines, 1):
        bare = text.strip()
        whole = before[-1:] in (";", "{", "}") and bare.endswith(";")
        if whole and bare.count("(") == bare.count(")") and not _DECLARES.match(text):
            found.add(number)
        if bare and not bare.startswith("//"):
            before = bare
    return found


def _python_lines(source: str) -> tuple[set[int], set[int]]:
    """Numbers of the lines that are one statement each that could be left out, and of those in
    texts over several lines, which are no code."""
    statements: set[int] = set()
    texts: set[int] = set()
    for node in ast.walk(ast.parse(source)):
        if isinstance(node, (ast.Constant, ast.JoinedStr)) and node.end_lineno != node.lineno:
            texts.update(range(node.lineno, (node.end_lineno or node.lineno) + 1))
        if isinstance(node, (ast.Expr, ast.AugAssign, ast.Raise, ast.Delete, ast.Return)) or \
                isinstance(node, ast.Assign) and not isinstance(node.targets[0], ast.Name):
            document = isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant)
            if document:
                texts.add(node.lineno)
            elif node.end_lineno == node.lineno:
                statements.add(node.lineno)
    return statements, texts


def lines_of(source: str, python: bool) -> list[tuple[int, Line]]:
    """The lines of code, with their numbers from 1."""
    lines = source.splitlines()
    statements, texts = _python_lines(source) if python else (_cpp_statements(lines), set())
    result = []
    for number, text in enumerate(lines, 1):
        if number not in texts and not _NO_CODE.match(text):
            tokens = [Token(match.lastgroup or "", match[0], match.start())
                      for match in _TOKENS[python].finditer(text)]
            result.append((number, Line(text, tokens, python, number in statements)))
    return result


def sources(folder: str) -> list[Path]:
    """The files below `folder` that faults are put into, all when it is empty."""
    return [path for top in FOLDERS for path in sorted((ROOT / top).rglob("*"))
            if path.suffix in (".cpp", ".h", ".py") and path.is_relative_to(ROOT / folder)
            and not path.is_relative_to(ROOT / _OF_TESTS)]


def drawn(seed: int, folder: str) -> Iterator[Fault]:
    """Faults in the order that the seed gives: each in a line of its own, which every line that
    has any is as likely to be."""
    choose = random.Random(seed)
    places = [(str(path.relative_to(ROOT)), number, line) for path in sources(folder)
              for number, line in lines_of(path.read_text(), path.suffix == ".py")]
    choose.shuffle(places)
    same = equivalent()
    for file, number, line in places:
        by_rule = [found for found in (list(rule(line)) for rule in RULES) if found]
        if by_rule:
            start, end, new = choose.choice(choose.choice(by_rule))
            fault = Fault(file, number, line.text, line.text[:start] + new + line.text[end:])
            if (file, fault.old.strip(), fault.new.strip()) not in same:
                yield fault
