"""The command lines of quilmrun-layers."""

from __future__ import annotations

import argparse
import math
from typing import Callable

from quilmrun_tools.common.parser import Parser

NAME = "quilmrun-layers"

DESCRIPTION = """\
Finds the layer in which a board goes wrong.

probe writes a model with inner results as further outputs, and says what they
are. Compile it for the board, and run it there and on the PC's host runtime
with the same inputs. find compares the two, layer by layer. With --own it also
computes, on the PC and from the board's own values, what each layer should have
made of them: the difference is this layer's own error, free of what it
inherited."""

EXAMPLES = """\
  quilmrun-layers probe model.onnx -o probe
  quilmrun-layers find probe board pc --own --json board/layers.json
  without a board, an 8-bit model against the one that it was made of:
    quilmrun-layers probe model.onnx -o probe --quantised int8.onnx
exit status of find: 0 no layer is beyond the limits, 1 one is, 2 nothing was judged"""


def _names(text: str) -> list[str]:
    names = [name for name in text.split(",") if name]
    if not names:
        raise argparse.ArgumentTypeError(f"{text!r} names nothing")
    return names


def _count(text: str) -> int:
    if not text.isascii() or not text.isdigit() or not 0 < int(text) < 2**31:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number from 1 to {2**31 - 1}")
    return int(text)


def _limit(what: str, largest: float) -> Callable[[str], float]:
    def parse(text: str) -> float:
        try:
            number = float(text)
        except ValueError:
            number = math.nan
        if not 0 <= number <= largest or math.isinf(number):
            raise argparse.ArgumentTypeError(f"{text!r} is no {what}")
        return number
    return parse


def probe_parser() -> Parser:
    """quilmrun-layers probe"""
    result = Parser(f"{NAME} probe", "Writes PROBE/probe.onnx and PROBE/layers.json.", usage=(
        f"{NAME} probe MODEL -o PROBE [option ...]"))
    result.add_argument("model", metavar="MODEL", help="an ONNX file")
    result.add_argument("-o", "--output", required=True, metavar="PROBE",
                        help="a folder; of what is there, only earlier probes are replaced")
    which = result.add_argument_group(
        "which results become outputs; by default one of each layer that computes, after the "
        "activation that follows it")
    which.add_argument("--all", action="store_true", help="every result")
    which.add_argument("--only", type=_names, default=[], metavar="OP,...",
                       help="layers of these operators, as Conv,Gemm")
    which.add_argument("--tensors", type=_names, default=[], metavar="A,...", help="these alone")
    which.add_argument("--from", dest="first", metavar="A", help="what is computed from tensor A")
    which.add_argument("--to", dest="last", metavar="B", help="what tensor B is computed from")
    result.add_argument("--at-most", type=_count, metavar="N", help=(
        "several probes with about N further outputs each, for compilers that have a limit"))
    result.add_argument("-j", "--quilm-json", metavar="JSON",
                        help="the host runtime's settings, for the \"input_shapes\" of open models")
    result.add_argument("--quantised", metavar="MODEL", help=(
        "also write PROBE/quantised.onnx, of the same model in 8 bits, with the same outputs"))
    result.add_json()
    return result


def find_parser() -> Parser:
    """quilmrun-layers find"""
    result = Parser(f"{NAME} find", "Compares the runs of a probe, layer by layer.", usage=(
        f"{NAME} find PROBE BOARD PC [--own] [option ...]"))
    result.add_argument("probe", metavar="PROBE", help="the folder that probe wrote")
    result.add_argument("board", metavar="BOARD",
                        help="what -o named on the board; with several probes a folder of such "
                             "folders, named as the probes: BOARD/probe-1")
    result.add_argument("pc", metavar="PC", help="the same of the host runtime, the reference")
    result.add_argument("--own", action="store_true", help="each layer's own error, which decides")
    result.add_argument("--runs", type=_count, default=4, metavar="N",
                        help="inferences that own errors are computed for; default: 4")
    limits = result.add_argument_group("limits")
    limits.add_argument("--snr", type=_limit("number of decibels", 400), metavar="DB",
                        help="least SNR of a layer; default: 20")
    limits.add_argument("--cosine", type=_limit("similarity from 0 to 1", 1), metavar="C",
                        help="least cosine similarity of a layer; default: 0.99. Given limits "
                             "decide alone; otherwise a layer fails too whose own error stands out "
                             "from that of the others")
    result.add_argument("--by-order", action="store_true",
                        help="pair outputs by their order, for a compiler that renames them")
    result.add_argument("--newest", action="store_true",
                        help="where a folder holds several runs, take the newest by time stamps")
    result.add_argument("--plain", metavar="OUT", help=(
        "the board's run of the model without the probe: tells whether the probe still shows the "
        "fault"))
    logs = result.add_argument_group(
        "what quilmrun printed; default: log.txt in the folder or the one above")
    logs.add_argument("--board-log", metavar="LOG")
    logs.add_argument("--pc-log", metavar="LOG")
    result.add_argument("--quilmrun", metavar="PATH", help=(
        "the executable, for --own; default: the one beside this companion, or on PATH"))
    result.add_json()
    return result


def top_parser() -> Parser:
    """quilmrun-layers itself, whose help has that of both commands."""
    both = "\n".join(parser.format_help() for parser in (probe_parser(), find_parser()))
    result = Parser(NAME, DESCRIPTION, EXAMPLES + "\n\n" + both,
                    usage=f"{NAME} probe|find ... [option ...]")
    result.add_argument("command", metavar="probe|find", choices=["probe", "find"])
    return result
