"""Sums under plain names, for the report."""

from __future__ import annotations

import threading
from collections import defaultdict


class Tally:
    """Counts and sums that any thread may add to."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._sums: defaultdict[str, float] = defaultdict(float)

    def add(self, name: str, amount: float = 1) -> None:
        """Adds ``amount`` to the sum of ``name``."""
        with self._lock:
            self._sums[name] += amount

    def __getitem__(self, name: str) -> float:
        """The sum of ``name`` so far, 0 if nothing was added to it."""
        with self._lock:
            return self._sums[name]
