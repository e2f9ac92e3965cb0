"""Draws the figures of a soak as one SVG picture of panels above each other."""

from xml.sax.saxutils import escape

WIDTH, PANEL, GAP = 900, 130, 45
LEFT, RIGHT, TOP = 80, 150, 50
COLOURS = ("#1f6fb4", "#c8551b", "#3c8d40")


def nice_maximum(value):
    scale = 1
    while True:
        for factor in (1, 2, 5):
            if factor * scale >= value:
                return factor * scale
        scale *= 10


def text(x, y, content, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>{escape(content)}</text>'


def panel(top, title, unit, times, series, losses, last_time):
    bottom = top + PANEL
    inner = WIDTH - LEFT - RIGHT
    highest = nice_maximum(max(max(values, default=0) for _, values in series) or 1)
    result = [text(LEFT, top - 8, f"{title} [{unit}]", "start", 'font-weight="bold"')]
    for part in range(5):
        y = bottom - PANEL * part / 4
        result.append(f'<path d="M{LEFT} {y:.1f}h{inner}" stroke="#ddd"/>')
        result.append(text(LEFT - 6, y + 4, f"{highest * part / 4:g}", "end"))
    for moment in losses:
        x = LEFT + inner * moment / last_time
        result.append(f'<path d="M{x:.1f} {bottom}v6" stroke="#b00"/>')
    for number, (label, values) in enumerate(series):
        points = " ".join(f"{LEFT + inner * time / last_time:.1f},"
                          f"{bottom - PANEL * value / highest:.1f}"
                          for time, value in zip(times, values))
        colour = COLOURS[number]
        result.append(f'<polyline points="{points}" fill="none" stroke="{colour}"/>')
        result.append(text(WIDTH - RIGHT + 10, top + 14 + 18 * number, label, "start",
                           f'fill="{colour}"'))
    return result


def draw(path, title, times, panels, losses):
    """panels holds (title, unit, [(label, values)]); times and losses are seconds."""
    last_time = max(times[-1], 1)
    minutes = last_time / 60
    height = TOP + len(panels) * (PANEL + GAP) + 20
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
             'font-family="sans-serif" font-size="12">',
             f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
             text(LEFT, 22, title, "start", 'font-size="15"')]
    for number, (name, unit, series) in enumerate(panels):
        lines += panel(TOP + number * (PANEL + GAP), name, unit, times, series, losses, last_time)
    bottom = TOP + len(panels) * (PANEL + GAP) - GAP
    for part in range(7):
        x = LEFT + (WIDTH - LEFT - RIGHT) * part / 6
        lines.append(text(x, bottom + 22, f"{minutes * part / 6:.3g}"))
    lines.append(text((LEFT + WIDTH - RIGHT) / 2, bottom + 42,
                      "time [min]; red ticks: the board was pulled out"))
    lines.append("</svg>")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")
