"""Line charts with logarithmic axes, as SVG."""

from __future__ import annotations

import math
from collections.abc import Sequence

import svg

WIDTH, HEIGHT = 720, 420
LEFT, RIGHT, TOP, BOTTOM = 80, 170, 40, 60
#: x, and the middle, the lowest and the highest value there.
Point = tuple[float, float, float, float]

COLOURS = ("#0b62a4", "#d1495b", "#3a7d44", "#8e6c00", "#6b4c9a", "#555555")
DASHES = ("", "8 4", "2 3", "10 3 2 3", "5 5", "1 4")


def decades(low: float, high: float) -> list[float]:
    first = math.floor(math.log10(low))
    last = math.ceil(math.log10(high))
    return [10.0 ** power for power in range(first, max(last, first + 1) + 1)]


def label(value: float) -> str:
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


class Axis:
    def __init__(self, values: Sequence[float], begin: float, end: float,
                 ticks: Sequence[float] | None = None) -> None:
        self.ticks = ticks or decades(min(values), max(values))
        self.low = math.log10(min(self.ticks[0], min(values)))
        self.span = math.log10(max(self.ticks[-1], max(values))) - self.low
        self.begin = begin
        self.length = end - begin

    def place(self, value: float) -> float:
        return self.begin + self.length * (math.log10(value) - self.low) / self.span


def chart(title: str, x_label: str, y_label: str, series: dict[str, list[Point]]) -> str:
    """`series` is {name: its points}; draws the middles as lines and the spread from
    low to high as bars."""
    points = [point for line in series.values() for point in line]
    x_ticks = sorted({point[0] for point in points})
    x = Axis(x_ticks, LEFT, WIDTH - RIGHT, x_ticks)
    y = Axis([value for point in points for value in point[1:]], HEIGHT - BOTTOM, TOP)
    parts = [
        svg.text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 14, x_label),
        svg.text(0, 0, y_label, "middle",
                 f'transform="translate(18 {(TOP + HEIGHT - BOTTOM) / 2}) rotate(-90)"'),
    ]
    last = -100.0
    for tick in x.ticks:
        place = x.place(tick)
        parts.append(svg.line(place, TOP, place, HEIGHT - BOTTOM, "#eeeeee"))
        if place - last > 26:
            parts.append(svg.text(place, HEIGHT - BOTTOM + 18, label(tick)))
            last = place
    for tick in y.ticks:
        parts.append(svg.line(LEFT, y.place(tick), WIDTH - RIGHT, y.place(tick), "#cccccc"))
        parts.append(svg.text(LEFT - 8, y.place(tick) + 4, label(tick), "end"))
    for number, (name, values) in enumerate(series.items()):
        parts += curve(number, name, values, x, y)
    return svg.document(WIDTH, HEIGHT, title, parts)


def curve(number: int, name: str, values: list[Point], x: Axis, y: Axis) -> list[str]:
    colour = COLOURS[number % len(COLOURS)]
    style = 'stroke-width="2"'
    if number:
        style += f' stroke-dasharray="{DASHES[number % len(DASHES)]}"'
    parts = [svg.curve([(x.place(point[0]), y.place(point[1])) for point in values], colour, style)]
    for at, middle, low, high in values:
        parts.append(svg.line(x.place(at), y.place(low), x.place(at), y.place(high), colour))
        parts.append(svg.dot(x.place(at), y.place(middle), colour))
    height = TOP + 12 + 20 * number
    begin = WIDTH - RIGHT + 12
    parts.append(svg.line(begin, height - 4, begin + 28, height - 4, colour, style))
    parts.append(svg.text(begin + 34, height, name, "start"))
    return parts
