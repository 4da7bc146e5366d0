"""What the tests of the bounds on event loops share."""

from __future__ import annotations

import asyncio
import time
import unittest
from dataclasses import dataclass
from typing import Any, Coroutine
from unittest import mock

from engines import decision_bounds
from engines.decision_bounds import DailySpend, RunBudget, never

from ..admission import Admission, admit, open_to_loops

PATIENCE_S = 30.0
WAITS: Any = {"deadline": None, "clock": time.monotonic, "stopping": never}
# So long that no poll hides a wake-up that was lost.
never_polled = mock.patch.object(decision_bounds, "_POLL_S", 1000.0)


@dataclass
class Reply:
    cost: float = 0.0
    input_tokens: int = 0
    cached: bool = False


def new_budget(room: int = 1) -> RunBudget:
    """A budget with tokens for so many calls at once that hold one each."""
    return open_to_loops(RunBudget(10**9, room))


def new_spend() -> DailySpend:
    return open_to_loops(DailySpend(1.0, lambda: "2024-05-01", None))


def admitted(spend: DailySpend, usd: float = 1.0, **waits: Any) -> Admission:
    return admit(spend, lambda: usd, **{**WAITS, **waits})


async def enter(admission: Admission) -> None:
    async with admission:
        pass


async def turns(count: int) -> None:
    """Let the loop run its ready calls so many times."""
    for _ in range(count):
        await asyncio.sleep(0)


def run(main: Coroutine[Any, Any, None]) -> None:
    """Run ``main`` on a new loop; one that hangs fails."""
    asyncio.run(asyncio.wait_for(main, PATIENCE_S))


class BoundsTest(unittest.TestCase):
    def assert_nothing_held(self, *bounds: Any) -> None:
        for bound in bounds:
            held = getattr(bound, "_held", None) or bound._held_tokens
            self.assertEqual((held.holders, held.amount, held.unbounded), (0, 0.0, 0))
            self.assertEqual(getattr(bound, "in_flight", 0), 0)
