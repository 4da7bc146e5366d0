"""The pure functions of a lease, where the orders of events that are tried do not tell."""

from __future__ import annotations

import os
import time
import unittest
from unittest import mock

from examples.shared_cap.lease import DAY_S, Answer, Day, Lease, day_of, usable

TODAY, YESTERDAY = "2030-02-01", "2030-01-31"


class LeaseTest(unittest.TestCase):
    def test_what_an_overdue_lease_left_unspent_is_no_room(self) -> None:
        half_spent = Lease("half spent", TODAY, granted=6, settled=2)
        dearer = Lease("dearer", TODAY, granted=1, settled=3)
        old = Lease("old", YESTERDAY, granted=6)
        day = Day(TODAY, counted=9, settled=5)

        def reached(cap: int, *overdue: Lease) -> bool:
            return Answer(Lease("own", TODAY), day, TODAY, DAY_S, overdue).reached(cap)

        self.assertFalse(reached(9, dearer, old))
        self.assertTrue(reached(9, half_spent, dearer))
        self.assertFalse(reached(10, half_spent, dearer))

    def test_days_are_those_of_utc(self) -> None:
        self.addCleanup(time.tzset)
        with mock.patch.dict(os.environ, TZ="UTC-14"):
            time.tzset()
            self.assertEqual(day_of(DAY_S - 1.0), "1970-01-01")

    def test_a_grant_is_usable_while_something_is_left_of_it(self) -> None:
        grants = [usable(6, 5, over=False), usable(5, 5, over=False), usable(6, 5, over=True)]
        self.assertEqual(grants, [6, 0, 0])
