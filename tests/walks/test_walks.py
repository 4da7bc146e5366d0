"""The module walks beside its twin; and a walk finds a fault where there is one."""

from __future__ import annotations

import importlib
import unittest
from typing import Any
from unittest import mock

from tests.walks.walk import MODULE, Difference, load_twin, walk_seed
from tests.walks.world import World

PROGRAMS = 300
bounds = importlib.import_module(MODULE)


def keeps_its_function(self: Any, reply: Any) -> None:
    """Settle as a share that can be settled twice does."""
    if self._give_back is not None:
        self._give_back(reply)


def wakes_nobody(self: Any, tokens: Any = 0.0) -> None:
    """Release as a budget that forgets who waits does."""
    with self._changed:
        self.in_flight = max(0, self.in_flight - 1)
        self._held_tokens.give_back(tokens)


class WalksTest(unittest.TestCase):
    def setUp(self) -> None:
        awake = World.without_sleep()
        awake.__enter__()
        self.addCleanup(awake.__exit__, None, None, None)
        self.twin: Any = load_twin()

    def first_difference(self) -> Difference | None:
        found = (walk_seed(seed, bounds, self.twin) for seed in range(PROGRAMS))
        return next(filter(None, found), None)

    def test_the_module_and_its_twin_cannot_be_told_apart(self) -> None:
        found = self.first_difference()
        self.assertIsNone(found, f"\n{found}")

    def test_a_fault_is_found_and_its_program_cut_short(self) -> None:
        for owner, name, faulty in (
            ("_Held", "admits", lambda self, share, used, limit: used + self.amount <= limit),
            ("Share", "settle", keeps_its_function),
            ("RunBudget", "release", wakes_nobody),
        ):
            with mock.patch.object(getattr(self.twin, owner), name, faulty):
                found = self.first_difference()
            assert found, name
            self.assertLessEqual(len(found.steps), 4, found)
