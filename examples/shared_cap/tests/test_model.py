"""Every order of events that a few processes can come to, and the rules that must hold in each."""

from __future__ import annotations

import gc
import unittest
from typing import Any

from .explorer import Explorer


class ModelTest(unittest.TestCase):
    def setUp(self) -> None:
        # Millions of small objects are made that all stay.
        gc.disable()
        self.addCleanup(gc.enable)

    def test_every_state_keeps_the_guarantees(self) -> None:
        worlds: tuple[dict[str, Any], ...] = (
            dict(processes=2, cap=3),
            dict(processes=2, cap=2, calls_at_once=2),
            dict(processes=2, cap=2, late=True, midnight=True),
            dict(processes=3, cap=1),
            dict(processes=1, cap=1, late=True, midnight=True, begins=True),
        )
        total = 0
        for world in worlds:
            states = Explorer(**world).states()
            print(f"{world}: {states:,} states")
            self.assertGreater(states, 10_000)
            total += states
        print(f"{total:,} states in all")
