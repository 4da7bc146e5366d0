"""The picture of the guards: what was spent after each call, against the line of the cap."""

from __future__ import annotations

from collections.abc import Iterable
from itertools import accumulate

_COLORS = ("#b3541e", "#7a4fa3", "#1f6fb2", "#12815f")
_CAP_COLOR = "#c01830"
_WIDTH, _HEIGHT = 880, 390
_PANEL_WIDTH, _PANEL_HEIGHT = 340, 260
_LEFTS, _TOP = (64, 504), 66


def draw(panels: dict[str, dict[str, list[float]]], cap_usd: float) -> str:
    """An SVG: a panel for each mix of calls, a line for each guard, from its costs in USD."""
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {_WIDTH} {_HEIGHT}"'
        ' font-family="sans-serif" font-size="13" fill="#24292f" role="img"'
        ' aria-label="Spend over calls of four guards, against the cap">',
        # A background of its own, so that it can be read on a dark page as well.
        f'<rect width="{_WIDTH}" height="{_HEIGHT}" rx="8" fill="#ffffff"/>',
    ]
    for left, (title, lines) in zip(_LEFTS, panels.items()):
        parts += _panel(left, title, lines, cap_usd)
    return "\n".join([*parts, "</svg>", ""])


def _panel(left: int, title: str, lines: dict[str, list[float]], cap_usd: float) -> Iterable[str]:
    most_calls = max(len(costs) for costs in lines.values())
    most_usd = 1.08 * max(sum(costs) for costs in lines.values())
    bottom = _TOP + _PANEL_HEIGHT

    def x(calls: float) -> float:
        return left + _PANEL_WIDTH * calls / most_calls

    def y(usd: float) -> float:
        return bottom - _PANEL_HEIGHT * usd / most_usd

    yield _text(left, _TOP - 34, title, 'font-size="15" font-weight="600"')
    yield _text(left, _TOP - 12, "USD spent", 'fill="#57606a"')
    yield _text(left + _PANEL_WIDTH, bottom + 36, "calls ended", 'text-anchor="end" fill="#57606a"')
    for usd in range(int(most_usd) + 1):
        yield _line(left, y(usd), left + _PANEL_WIDTH, y(usd), "#d8dee4")
        yield _text(left - 8, y(usd) + 4, f"{usd}", 'text-anchor="end" fill="#57606a"')
    for calls in range(0, most_calls + 1, 20):
        yield _text(x(calls), bottom + 18, f"{calls}", 'text-anchor="middle" fill="#57606a"')
    yield _line(
        left, y(cap_usd), left + _PANEL_WIDTH, y(cap_usd), _CAP_COLOR, ' stroke-dasharray="6 4"'
    )
    yield _text(
        left + _PANEL_WIDTH, y(cap_usd) - 6, "cap", f'text-anchor="end" fill="{_CAP_COLOR}"'
    )
    yield from _legend(left, lines)
    for color, costs in zip(_COLORS, lines.values()):
        spent = list(accumulate(costs, initial=0.0))
        points = " ".join(f"{x(calls):.1f},{y(usd):.1f}" for calls, usd in enumerate(spent))
        yield f'<polyline points="{points}" fill="none" stroke="{color}" stroke-width="2.2"/>'
        yield f'<circle cx="{x(len(costs)):.1f}" cy="{y(spent[-1]):.1f}" r="4" fill="{color}"/>'


def _legend(left: int, lines: dict[str, list[float]]) -> Iterable[str]:
    for index, (color, (guard, costs)) in enumerate(zip(_COLORS, lines.items())):
        middle = _TOP + 14 + index * 19
        yield f'<rect x="{left + 8}" y="{middle - 10}" width="226" height="19" fill="#fff"/>'
        yield _line(left + 12, middle, left + 30, middle, color, ' stroke-width="3"')
        yield _text(left + 36, middle + 4, f"{guard}: ${sum(costs):.2f}")


def _line(x1: float, y1: float, x2: float, y2: float, color: str, more: str = "") -> str:
    ends = f'x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}"'
    return f'<line {ends} stroke="{color}"{more}/>'


def _text(x: float, y: float, text: str, more: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" {more}>{text}</text>'
