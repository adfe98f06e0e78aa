"""Draws curves: as an SVG picture of stacked panels, and as characters on a terminal.

A curve is a list of (x, y) points; x is a time in ms, y a voltage in mV.
"""

from xml.sax.saxutils import escape

WIDTH = 960
PANEL_HEIGHT = 150
PANEL_GAP = 34
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 64, 52
X_TICK = 500
Y_TICK = 1


class Box:
    """Maps the data ranges x = (low, high) and y = (low, high) to a box of the picture."""

    def __init__(self, x, y, left, top, width, height):
        self.x, self.y = x, y
        self.left, self.top, self.width, self.height = left, top, width, height

    def column(self, value):
        return self.left + self.width * (value - self.x[0]) / (self.x[1] - self.x[0])

    def row(self, value):
        return self.top + self.height * (self.y[1] - value) / (self.y[1] - self.y[0])


def ticks(low, high, step):
    """Returns the multiples of step within low..high."""
    first = -int(-low // step)
    return [n * step for n in range(first, int(high // step) + 1)]


def text(x, y, content, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{extra}>{escape(content)}</text>'


def line(x1, y1, x2, y2, colour, width=1):
    return (
        f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
        f'stroke="{colour}" stroke-width="{width}"/>'
    )


def polyline(box, curve, colour, width):
    """Returns one curve as an SVG line."""
    points = " ".join(f"{box.column(x):.1f},{box.row(y):.1f}" for x, y in curve)
    return (
        f'<polyline points="{points}" fill="none" stroke="{colour}" '
        f'stroke-width="{width}" stroke-linejoin="round"/>'
    )


def panel_axes(box, title, y_title, with_x_labels):
    """Returns grid, border, tick labels and titles of one panel."""
    right, bottom = box.left + box.width, box.top + box.height
    parts = []
    for value in ticks(*box.x, X_TICK):
        column = box.column(value)
        parts.append(line(column, box.top, column, bottom, "#e4e4e4"))
        if with_x_labels:
            parts.append(text(column, bottom + 18, str(value)))
    for value in ticks(*box.y, Y_TICK):
        row = box.row(value)
        parts.append(line(box.left, row, right, row, "#e4e4e4"))
        parts.append(text(box.left - 8, row + 4, str(value), "end"))
    parts.append(
        f'<rect x="{box.left}" y="{box.top}" width="{box.width}" '
        f'height="{box.height}" fill="none" stroke="#888"/>'
    )
    middle = box.top + box.height / 2
    turned = f' transform="rotate(-90 24 {middle:.1f})"'
    parts.append(text(24, middle, y_title, extra=turned))
    parts.append(text(box.left, box.top - 8, title, "start", ' font-weight="bold"'))
    return parts


def legend(styles):
    """Returns the legend above the panels for (name, colour, line width) entries."""
    parts = []
    x = LEFT
    for name, colour, width in styles:
        parts.append(line(x, 24, x + 28, 24, colour, width + 0.5))
        parts.append(text(x + 36, 28, name, "start"))
        x += 60 + 7 * len(name)
    return parts


def value_range(panels, axis, step):
    """Returns the range of all curves along an axis (0: x, 1: y), widened to whole steps."""
    values = [point[axis] for _, curves in panels for curve in curves for point in curve]
    return (min(values) // step * step, -(-max(values) // step) * step)


def svg(panels, styles, x_title, y_title):
    """Returns an SVG picture of panels (title, curves) that share both value ranges.

    styles has one (name, colour, line width) entry for each curve of a panel.
    """
    x_range, y_range = value_range(panels, 0, 100), value_range(panels, 1, Y_TICK)
    height = TOP + len(panels) * (PANEL_HEIGHT + PANEL_GAP) - PANEL_GAP + BOTTOM
    parts = legend(styles)
    for number, (title, curves) in enumerate(panels):
        top = TOP + number * (PANEL_HEIGHT + PANEL_GAP)
        box = Box(x_range, y_range, LEFT, top, WIDTH - LEFT - RIGHT, PANEL_HEIGHT)
        parts += panel_axes(box, title, y_title, number == len(panels) - 1)
        for curve, (_, colour, width) in zip(curves, styles):
            parts.append(polyline(box, curve, colour, width))
    parts.append(text((LEFT + WIDTH - RIGHT) / 2, height - 10, x_title))
    head = (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
        f'width="{WIDTH}" height="{height}" font-family="sans-serif" font-size="13" '
        f'fill="#222"><rect width="{WIDTH}" height="{height}" fill="white"/>'
    )
    return "\n".join([head, *parts, "</svg>", ""])


def characters(curves, marks, columns, rows):
    """Returns rows of characters with the curves, each drawn with its mark.

    A later curve covers an earlier one. The last two lines are the x axis.
    """
    label = 7
    panel = [("", curves)]
    width, height = columns - label - 2, rows - 2
    x_range, y_range = value_range(panel, 0, 100), value_range(panel, 1, Y_TICK)
    box = Box(x_range, y_range, 0, 0, width - 1, height - 1)
    cells = [[" "] * width for _ in range(height)]
    for curve, mark in zip(curves, marks):
        for x, y in curve:
            cells[round(box.row(y))][round(box.column(x))] = mark
    names = {round(box.row(v)): f"{v:g}" for v in ticks(*y_range, Y_TICK)}
    lines = [f"{names.get(n, ''):>{label}} |" + "".join(row) for n, row in enumerate(cells)]
    axis, numbers = ["-"] * width, [" "] * (width + 4)
    for value in ticks(*x_range, X_TICK):
        column = round(box.column(value))
        axis[column] = "+"
        numbers[column : column + len(str(value))] = str(value)
    lines.append(" " * label + " +" + "".join(axis))
    return lines + [" " * (label + 2) + "".join(numbers).rstrip()]
