"""Draws the figures of a soak as one SVG picture of panels above each other."""

from __future__ import annotations

from collections.abc import Iterable, Sequence

import svg

WIDTH, PANEL, GAP = 900, 130, 45
LEFT, RIGHT, TOP = 80, 150, 50
Series = tuple[str, Sequence[float]]  # its label and values
COLOURS = ("#1f6fb4", "#c8551b", "#3c8d40")


def nice_maximum(value: float) -> int:
    scale = 1
    while True:
        for factor in (1, 2, 5):
            if factor * scale >= value:
                return factor * scale
        scale *= 10


def panel(top: float, title: str, unit: str, times: Sequence[float], series: Iterable[Series],
          losses: Iterable[float], last_time: float) -> list[str]:
    bottom = top + PANEL
    inner = WIDTH - LEFT - RIGHT
    highest = nice_maximum(max(max(values, default=0) for _, values in series) or 1)
    result = [svg.text(LEFT, top - 8, f"{title} [{unit}]", "start", 'font-weight="bold"')]
    for part in range(5):
        y = bottom - PANEL * part / 4
        result.append(svg.line(LEFT, y, LEFT + inner, y, "#ddd"))
        result.append(svg.text(LEFT - 6, y + 4, f"{highest * part / 4:g}", "end"))
    for moment in losses:
        x = LEFT + inner * moment / last_time
        result.append(svg.line(x, bottom, x, bottom + 6, "#b00"))
    for number, (label, values) in enumerate(series):
        points = [(LEFT + inner * time / last_time, bottom - PANEL * value / highest)
                  for time, value in zip(times, values)]
        result.append(svg.curve(points, COLOURS[number]))
        result.append(svg.text(WIDTH - RIGHT + 10, top + 14 + 18 * number, label, "start",
                               f'fill="{COLOURS[number]}"'))
    return result


def draw(path: str, title: str, times: Sequence[float],
         panels: Sequence[tuple[str, str, Sequence[Series]]], losses: Iterable[float]) -> None:
    """panels holds (title, unit, [(label, values)]); times and losses are seconds."""
    last_time = max(times[-1], 1)
    minutes = last_time / 60
    parts = []
    for number, (name, unit, series) in enumerate(panels):
        parts += panel(TOP + number * (PANEL + GAP), name, unit, times, series, losses, last_time)
    bottom = TOP + len(panels) * (PANEL + GAP) - GAP
    for part in range(7):
        x = LEFT + (WIDTH - LEFT - RIGHT) * part / 6
        parts.append(svg.text(x, bottom + 22, f"{minutes * part / 6:.3g}"))
    parts.append(svg.text((LEFT + WIDTH - RIGHT) / 2, bottom + 42,
                          "time [min]; red ticks: the board was pulled out"))
    with open(path, "w", encoding="utf-8") as file:
        file.write(svg.document(WIDTH, TOP + len(panels) * (PANEL + GAP) + 20, title, parts))
