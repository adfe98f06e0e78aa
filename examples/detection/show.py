#!/usr/bin/python3
"""Shows the boxes that the coin detectors found: show.py OUTDIR, after the runs of runs.txt.

Run NAME of runs.txt has its outputs in OUTDIR/NAME. Exit status 0 if the strict parameters give
fewer boxes than the loose ones for both models, 1 otherwise or if an output file is missing.
"""

import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
from outputs import OutputError, read_output, run_viewer  # noqa: E402
from picture import Picture  # noqa: E402

HEIGHT, WIDTH = 128, 160
CELLS = 320
COLUMNS = 6
ENLARGED = 5
PER_LINE = 2
CLASS_NAMES = {"single": ["coin"], "multi": ["small", "medium", "large"]}
COLOURS = {
    "coin": (255, 210, 0),
    "small": (0, 210, 255),
    "medium": (120, 230, 60),
    "large": (255, 120, 200),
}


def read_runs():
    """Returns (name, model file, RPN file) for every run."""
    return [line.split() for line in (HERE / "runs.txt").read_text().splitlines()]


def read_boxes(outdir, name):
    """Returns the boxes of a run, best first: class name, score, (left, top, right, bottom).

    Rows of the table whose class is 0 hold no box.
    """
    names = CLASS_NAMES[name.partition("-")[0]]
    table = read_output(Path(outdir) / name, 0, "boxes", CELLS * COLUMNS)
    boxes = []
    for start in range(0, len(table), COLUMNS):
        number, score, *corners = table[start : start + COLUMNS]
        if not 0 <= round(number) <= len(names):
            raise OutputError(f"run {name} has a box of the unknown class {number:g}")
        if round(number) > 0:
            boxes.append((names[round(number) - 1], score, corners))
    return sorted(boxes, key=lambda box: -box[1])


def print_table(boxes):
    """Prints the boxes, several on a line, numbered downwards."""
    heading = "  no class  score  left   top right bottom"
    print("".join(heading.ljust(46) for _ in range(min(PER_LINE, len(boxes)))).rstrip())
    cells = []
    for number, (name, score, corners) in enumerate(boxes, 1):
        left, top, right, bottom = (f"{corner:5.1f}" for corner in corners)
        cells.append(f"{number:4} {name:6} {score:5.3f} {left} {top} {right}  {bottom}")
    rows = -(-len(cells) // PER_LINE)
    for row in range(rows):
        print("".join(cell.ljust(46) for cell in cells[row::rows]).rstrip())


def write_picture(boxes, photo, path):
    """Writes the photograph with the boxes; their numbers are those of the table."""
    picture = Picture(photo, WIDTH, ENLARGED)
    for number, (name, _, corners) in enumerate(boxes, 1):
        left, top, right, bottom = (round(ENLARGED * corner) for corner in corners)
        picture.box(left, top, right, bottom, COLOURS[name])
        picture.number(left, top, number, COLOURS[name])
    path.write_bytes(picture.png())


def read_photo():
    photo = (HERE / "coins.bin").read_bytes()
    if len(photo) != WIDTH * HEIGHT:
        raise OutputError(f"coins.bin has {len(photo)} bytes instead of {WIDTH * HEIGHT}")
    return photo


def parameters(rpn_file):
    """Returns the RPN parameters in one line, the rows separated by commas."""
    rows = (HERE / rpn_file).read_text().splitlines()
    names = ("score >=", "diameter >=", "diameter <=", "margin")
    return ", ".join(f"{name} {' / '.join(row.split())}" for name, row in zip(names, rows))


def show_run(outdir, name, rpn_file):
    """Shows one run; returns its number of boxes."""
    boxes = read_boxes(outdir, name)
    path = Path(outdir) / f"{name}.png"
    write_picture(boxes, read_photo(), path)
    print(f"{name}: {len(boxes)} boxes ({parameters(rpn_file)})")
    print_table(boxes)
    print(f"  picture: {path}\n")
    return len(boxes)


def show(outdir):
    """Shows all runs; returns whether strict parameters give fewer boxes than loose ones."""
    counts = {name: show_run(outdir, name, rpn_file) for name, _, rpn_file in read_runs()}
    fewer = True
    for kind in CLASS_NAMES:
        loose, strict = counts[f"{kind}-loose"], counts[f"{kind}-strict"]
        print(f"{kind}: {loose} boxes with loose, {strict} with strict parameters")
        fewer = fewer and strict < loose
    return fewer


if __name__ == "__main__":
    run_viewer(show)
