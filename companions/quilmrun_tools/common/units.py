"""Numbers as people read them: three significant digits and a unit that fits."""

from __future__ import annotations

import math
from dataclasses import dataclass

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


@dataclass(frozen=True)
class Unit:
    """What an axis is labelled in: values times `factor`, followed by `name`."""

    name: str = ""
    factor: float = 1.0

    def write(self, value: float) -> str:
        """A value in this unit, without zeros at its end."""
        text = significant(round(value * self.factor, 12), 4)
        if "." in text and "e" not in text:
            text = text.rstrip("0").rstrip(".")
        return f"{text} {self.name}".rstrip()


def duration_unit(high: float) -> Unit:
    """The unit for durations up to `high` milliseconds."""
    return Unit("µs", 1000.0) if high < 1 else Unit("ms") if high < 1000 else Unit("s", 0.001)


def size_unit(high: float) -> Unit:
    """The unit for sizes up to `high` bytes."""
    power = min(3, max(0, int(math.log2(high or 1) // 10)))
    return Unit(("bytes", "KB", "MB", "GB")[power], 1024.0 ** -power)


def plain_unit(_: float) -> Unit:
    """Numbers without a unit."""
    return Unit()


def ticks(low: float, high: float, wanted: int = 4) -> list[float]:
    """Round numbers between low and high, about as many as wanted."""
    span = high - low
    if span <= 0 or not math.isfinite(span):
        return [low]
    rough = span / wanted
    magnitude = 10.0 ** math.floor(math.log10(rough))
    step = next(factor * magnitude for factor in (1, 2, 2.5, 5, 10) if factor * magnitude >= rough)
    first = math.ceil(low / step - 1e-9)
    last = math.floor(high / step + 1e-9)
    return [index * step for index in range(first, last + 1)]


def decade_ticks(low: float, high: float, wanted: int = 4) -> list[float]:
    """Round numbers for a logarithmic axis: powers of ten, or 1, 2 and 5 of each when few fit."""
    powers = range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)
    found: list[float] = []
    for digits in ((1,), (1, 3), (1, 2, 5)):
        denser = [digit * 10.0 ** power for power in powers for digit in digits
                  if low <= digit * 10.0 ** power <= high]
        if not found or len(denser) <= wanted + 1:
            found = denser
    return found
