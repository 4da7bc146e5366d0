"""The races: what several threads do to one object at once, and what must hold when they have ended."""

from __future__ import annotations

from tests.hammer import counting, rebinding  # Each enters its races in the table.
from tests.hammer.table import RACES

__all__ = ["RACES", "counting", "rebinding"]
