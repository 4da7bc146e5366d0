"""The picture of the guards: what the endpoint billed under each, beside the line of the cap."""

from __future__ import annotations

import statistics
from collections.abc import Callable, Iterable
from dataclasses import dataclass

_PAID_COLOR, _OVER_COLOR, _UNUSED_COLOR = "#1f6fb2", "#c01830", "#e4e9ee"
_INK, _GRAY = "#24292f", "#57606a"
_WIDTH, _ROW, _TOP, _BOTTOM = 880, 44, 62, 66
_LEFT, _RIGHT = 292, 770
_BAR = 20


@dataclass(frozen=True)
class Bar:
    """The passes under one guard, as parts of the cap: 0 is the cap, -1 nothing, 1 twice the cap."""

    over: list[float]  # Of the endpoint's bill, one for each pass.
    counted: float  # Of what the guard counted itself, the median.

    @property
    def median(self) -> float:
        """Return what the endpoint billed in the middle of the passes."""
        return statistics.median(self.over)


def draw(bars: dict[str, Bar]) -> str:
    """An SVG with a bar for each guard: what was billed below the cap, above it, and what was left."""
    most = max(max(bar.over) for bar in bars.values())
    height = _TOP + _ROW * len(bars) + _BOTTOM
    bottom = height - _BOTTOM

    def x(over: float) -> float:
        return _LEFT + (_RIGHT - _LEFT) * (over + 1) / (most + 1)

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {_WIDTH} {height}"'
        f' font-family="sans-serif" font-size="14" fill="{_INK}" role="img"'
        ' aria-label="What the endpoint billed under each guard, beside the cap">',
        # A background of its own, so that it can be read on a dark page as well.
        f'<rect width="{_WIDTH}" height="{height}" rx="8" fill="#ffffff"/>',
        _text(
            24, 34, "What the endpoint billed, beside the cap", 'font-size="16" font-weight="600"'
        ),
    ]
    for row, (guard, bar) in enumerate(bars.items()):
        parts += _row(_middle(row), guard, bar, x)
    # The line goes over the bars, and the marks over the line, or they would hide each other.
    parts.append(_line(x(0), _TOP - 6, x(0), bottom, _OVER_COLOR, ' stroke-width="2"'))
    parts.append(_text(x(0), _TOP - 12, "cap", f'text-anchor="middle" fill="{_OVER_COLOR}"'))
    parts += [_mark(x(bar.counted), _middle(row)) for row, bar in enumerate(bars.values())]
    parts += _legend(height - 26)
    return "\n".join([*parts, "</svg>", ""])


def _row(middle: float, guard: str, bar: Bar, x: Callable[[float], float]) -> Iterable[str]:
    top, end = middle - _BAR / 2, x(bar.median)
    yield _text(_LEFT - 12, middle + 5, guard, 'text-anchor="end"')
    yield _rect(x(-1), top, min(end, x(0)), _PAID_COLOR)
    if bar.median > 0:
        yield _rect(x(0), top, end, _OVER_COLOR)
    else:
        yield _rect(end, top, x(0), _UNUSED_COLOR)
    lowest, highest = x(min(bar.over)), x(max(bar.over))
    yield _span(lowest, highest, middle)
    said = f"{100 * bar.median:+.0f} %".replace("-", "\u2212")
    yield _text(max(highest, x(0)) + 10, middle + 5, said, 'font-weight="600"')


def _legend(middle: float) -> Iterable[str]:
    labels = (
        (_PAID_COLOR, "billed", 24),
        (_OVER_COLOR, "billed above the cap", 104),
        (_UNUSED_COLOR, "left unused", 282),
    )
    for color, label, left in labels:
        yield _rect(left, middle - 6, left + 14, color, 12)
        yield _text(left + 20, middle + 5, label, f'fill="{_GRAY}"')
    yield _mark(407, middle + 14)
    yield _text(420, middle + 5, "what the guard counted", f'fill="{_GRAY}"')
    yield _span(604, 626, middle)
    yield _text(634, middle + 5, "lowest and highest bill", f'fill="{_GRAY}"')


def _middle(row: int) -> float:
    return _TOP + _ROW * row + _ROW / 2


def _mark(x: float, middle: float) -> str:
    return f'<path d="M{x:.1f} {middle - _BAR / 2:.1f} l-5 -8 h10 z" fill="{_INK}"/>'


def _span(x1: float, x2: float, middle: float) -> str:
    path = f"M{x1:.1f} {middle:.1f} H{x2:.1f} m0 -4 v8 M{x1:.1f} {middle - 4:.1f} v8"
    return f'<path d="{path}" fill="none" stroke="{_INK}" stroke-width="1.5"/>'


def _rect(x1: float, y: float, x2: float, color: str, height: float = _BAR) -> str:
    width = max(0.0, x2 - x1)
    return f'<rect x="{x1:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height}" fill="{color}"/>'


def _line(x1: float, y1: float, x2: float, y2: float, color: str, more: str = "") -> str:
    ends = f'x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}"'
    return f'<line {ends} stroke="{color}"{more}/>'


def _text(x: float, y: float, text: str, more: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" {more}>{text}</text>'
