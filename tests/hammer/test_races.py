"""Every race of the table, for a part of a second each."""

from __future__ import annotations

import unittest

from tests.hammer.races import RACES
from tests.hammer.threads import run

_SECONDS = 0.15


class RaceTest(unittest.TestCase):
    def test_what_must_hold_holds(self) -> None:
        for name, race in RACES.items():
            with self.subTest(name):
                run(race, _SECONDS)
