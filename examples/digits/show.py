#!/usr/bin/python3
"""Shows what the digit network recognised: show.py OUTDIR, after a run of quilmrun.

Exit status 0 if enough of the digits are right, 1 otherwise or if an output file is missing.
"""

import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
from outputs import OutputError, newest_output, read_list, read_output, run_viewer  # noqa: E402

SIZE = 8
CLASSES = 10
PER_ROW = 5
COLUMN_WIDTH = 19
WANTED_RIGHT = 18
SHADES = " .:-=+*#%@"
BRIGHTEST = 16


def read_picture(path):
    """Returns the 64 pixels (0..16) of a digit file, row by row."""
    pixels = path.read_bytes()
    if len(pixels) != SIZE * SIZE:
        raise OutputError(f"{path} has {len(pixels)} bytes instead of {SIZE * SIZE}")
    return pixels


def picture_lines(pixels):
    """Returns the picture as 8 strings, two characters a pixel to make it about square."""
    shades = [2 * SHADES[p * (len(SHADES) - 1) // BRIGHTEST] for p in pixels]
    return ["".join(shades[row * SIZE : (row + 1) * SIZE]) for row in range(SIZE)]


def digit_block(outdir, run, path):
    """Returns the lines that show one digit, and whether it was recognised.

    The true number is taken from the file name, which ends in label<number>.
    """
    truth = int(path.stem.rpartition("label")[2])
    probabilities = read_output(outdir, run, "probabilities", CLASSES)
    best = probabilities.index(max(probabilities))
    mark = "" if best == truth else " WRONG"
    result = f"{truth} -> {best} {100 * probabilities[best]:3.0f}%{mark}"
    return picture_lines(read_picture(path)) + [result], best == truth


def print_blocks(blocks):
    """Prints blocks of equally many lines side by side, PER_ROW in a row."""
    for start in range(0, len(blocks), PER_ROW):
        for parts in zip(*blocks[start : start + PER_ROW]):
            print("".join(part.ljust(COLUMN_WIDTH) for part in parts).rstrip())
        print()


def show(outdir):
    """Prints all digits with the numbers recognised; returns whether enough are right."""
    paths = [path for _, path in read_list(HERE / "list.txt")]
    shown = [digit_block(outdir, run, path) for run, path in enumerate(paths)]
    print("Each digit: true number -> recognised number, probability\n")
    print_blocks([lines for lines, _ in shown])
    right = sum(ok for _, ok in shown)
    print(f"{right} of {len(paths)} right")
    print(f"The probabilities are in {outdir}/<run>/, the first in")
    print(f"  {newest_output(outdir, 0, 'probabilities')}")
    return right >= WANTED_RIGHT


if __name__ == "__main__":
    run_viewer(show)
