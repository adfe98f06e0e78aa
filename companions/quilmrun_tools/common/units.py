"""Numbers as people read them: three significant digits and a unit that fits."""

from __future__ import annotations

import math

MINUS = "\N{MINUS SIGN}"


def significant(value: float, digits: int = 3) -> str:
    """A number rounded to so many significant digits, without an exponent where that is readable;
    whole numbers that count something (int) stay whole."""
    if isinstance(value, int):
        return f"{value:,}".replace("-", MINUS, 1)
    if math.isnan(value):
        return "NaN"
    if math.isinf(value):
        return "\N{INFINITY}" if value > 0 else MINUS + "\N{INFINITY}"
    if value == 0:
        return "0"
    if not 1e-4 <= abs(value) < 1e7:
        text = f"{value:.{digits - 1}e}".replace("e-0", "e-").replace("e+0", "e").replace("e+", "e")
    else:
        decimals = max(0, digits - 1 - math.floor(math.log10(abs(value))))
        text = f"{value:,.{decimals}f}"
    return text.replace("-", MINUS, 1) if value < 0 else text


def milliseconds(value: float) -> str:
    """A duration given in milliseconds, as microseconds, milliseconds or seconds."""
    if value and abs(value) < 0.9995:
        return f"{significant(value * 1000)} µs"
    if abs(value) < 999.5:
        return f"{significant(value)} ms"
    return f"{significant(value / 1000)} s"


def data_size(count: float) -> str:
    """A number of bytes, in units of 1024 as the tool's own reports have them."""
    for unit in ("bytes", "KB", "MB"):
        if abs(count) < 1024:
            return f"{count:.0f} {unit}" if unit == "bytes" else f"{significant(count)} {unit}"
        count /= 1024
    return f"{significant(count)} GB"


def percent(share: float) -> str:
    """A share of 1 as a percentage."""
    if 0 < share < 0.001:
        return "< 0.1 %"
    return f"{100 * share:.1f} %"


def signed_percent(share: float) -> str:
    """A change as a share of 1, as a percentage with its sign; as a factor when it is large."""
    if share >= 9:
        return f"× {significant(1 + share)}"
    return f"{'+' if share > 0 else MINUS if share < 0 else ''}{abs(100 * share):.1f} %"


def change(before: float | None, after: float | None) -> str:
    """How much `after` is above or below `before`, as a percentage with its sign or a factor."""
    if before is None or after is None or before == 0:
        return "–"
    if after / before >= 10:
        return f"× {significant(after / before)}"
    difference = 100 * (after / before - 1)
    if abs(difference) < 0.05:
        return "same"
    return f"{'+' if difference > 0 else MINUS}{abs(difference):.1f} %"


def size_unit(most: float) -> tuple[str, int]:
    """The unit for sizes up to so many bytes, and how many bytes it has."""
    power = min(3, max(0, int(math.log2(most or 1) // 10)))
    return ("bytes", "KB", "MB", "GB")[power], 1024 ** power
