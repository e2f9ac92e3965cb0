"""Pictures for the documentation: text, lines and curves as SVG."""

from __future__ import annotations

from collections.abc import Iterable
from xml.sax.saxutils import escape


def document(width: float, height: float, title: str, parts: Iterable[str]) -> str:
    """The parts, drawn on white below the title."""
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12" role="img">',
        f"<title>{escape(title)}</title>",
        f'<rect width="{width}" height="{height}" fill="white"/>',
        text(80, 22, title, "start", 'font-size="15" font-weight="bold"'),
        *parts, "</svg>", ""])


def text(x: float, y: float, content: str, anchor: str = "middle", more: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {more}>{escape(content)}</text>'


def line(x1: float, y1: float, x2: float, y2: float, colour: str, more: str = "") -> str:
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
            f'stroke="{colour}" {more}/>')


def curve(points: Iterable[tuple[float, float]], colour: str, more: str = "") -> str:
    """A line through all points, which are pairs."""
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    return f'<polyline points="{path}" fill="none" stroke="{colour}" {more}/>'


def dot(x: float, y: float, colour: str) -> str:
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>'
