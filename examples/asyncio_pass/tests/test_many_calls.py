"""Many calls at once: none waits for ever, and the loop goes on beside them."""

from __future__ import annotations

import asyncio
import math
import random
import threading
import unittest
from concurrent.futures import ThreadPoolExecutor
from unittest import mock

from engines.decision_bounds import RunBudget

from ..admission import hold
from ..condition import LoopCondition
from .support import (
    PATIENCE_S,
    WAITS,
    BoundsTest,
    Reply,
    admitted,
    never_polled,
    new_budget,
    new_spend,
    run,
    turns,
)


class ManyCallsTest(BoundsTest):
    @never_polled
    def test_no_wake_up_is_lost_in_10000_runs_of_random_lengths(self) -> None:
        async def call(budget: RunBudget, chance: random.Random, unknown: bool) -> None:
            await turns(chance.randrange(3))
            async with hold(budget, math.inf if unknown else 1.0) as share:
                await turns(chance.randrange(4))
                if chance.random() < 0.5:
                    share.settle(Reply())
                    await turns(1)

        async def main() -> None:
            for seed in range(10_000):
                chance = random.Random(seed)
                budget = new_budget(chance.randint(1, 2))
                calls = [
                    asyncio.create_task(call(budget, chance, unknown=chance.random() < 0.2))
                    for _ in range(chance.randint(2, 5))
                ]
                if chance.random() < 0.5:
                    await turns(chance.randrange(6))
                    chance.choice(calls).cancel()
                _, hung = await asyncio.wait(calls, timeout=PATIENCE_S / 4)
                self.assertFalse(hung, f"seed {seed}: a call was never woken")
                self.assert_nothing_held(budget)

        asyncio.run(main())

    @never_polled
    def test_two_loops_and_a_thread_share_the_bounds(self) -> None:
        budget, spend = new_budget(3), new_spend()
        reply = Reply(cost=0.0001)
        most_in_flight = 0

        async def call(length_s: float) -> None:
            nonlocal most_in_flight
            async with hold(budget, 1.0) as tokens, admitted(spend, 0.4) as usd:
                most_in_flight = max(most_in_flight, budget.in_flight)
                await asyncio.sleep(length_s)
                tokens.settle(reply)
                usd.settle(reply)

        async def calls(seed: int) -> None:
            chance = random.Random(seed)
            await asyncio.gather(*(call(chance.random() / 1000) for _ in range(200)))

        def thread() -> None:
            for _ in range(200):
                with budget.hold(1.0) as tokens, spend.admit(lambda: 0.4, **WAITS) as usd:
                    tokens.settle(reply)
                    usd.settle(reply)

        with ThreadPoolExecutor(3) as pool:
            loops = [pool.submit(run, calls(seed)) for seed in (1, 2)]
            for done in [*loops, pool.submit(thread)]:
                done.result()
        self.assertLessEqual(most_in_flight, 3)
        self.assertEqual(budget.calls, 600)
        self.assertAlmostEqual(spend.spent(), 0.06)
        self.assert_nothing_held(budget, spend)

    def test_1000_calls_wait_without_a_thread_and_a_change_wakes_few_of_them(self) -> None:
        budget, spend = new_budget(20), new_spend()

        async def call() -> None:
            async with hold(budget, 1.0), admitted(spend, 0.1) as usd:
                await asyncio.sleep(0.02)
                usd.settle(Reply())

        async def main() -> None:
            threads = threading.active_count()
            calls = [asyncio.create_task(call()) for _ in range(1000)]
            await turns(1)
            self.assertEqual(threading.active_count(), threads)
            await asyncio.gather(*calls)

        attempt = LoopCondition._attempt
        with mock.patch.object(
            LoopCondition, "_attempt", autospec=True, side_effect=attempt
        ) as made:
            run(main())
        print("\n1,000 calls that waited for room looked for it", made.call_count, "times")
        self.assertLess(made.call_count, 10_000)
        self.assert_nothing_held(budget, spend)


if __name__ == "__main__":
    unittest.main()
