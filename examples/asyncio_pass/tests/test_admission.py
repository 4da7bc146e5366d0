"""Coroutines wait for room without a thread, and hold nothing when their wait ends otherwise."""

from __future__ import annotations

import asyncio
import gc
import math
import random
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from typing import Any, Coroutine
from unittest import mock

from engines import decision_bounds
from engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionTimeout,
    RunBudget,
    never,
)

from ..admission import Admission, admit, hold, open_to_loops
from ..heartbeat import Heartbeat

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


class AdmissionTest(unittest.TestCase):
    def assert_nothing_held(self, *bounds: Any) -> None:
        for bound in bounds:
            held = getattr(bound, "_held", None) or bound._held_tokens
            self.assertEqual((held.holders, held.amount, held.unbounded), (0, 0.0, 0))
            self.assertEqual(getattr(bound, "in_flight", 0), 0)

    @never_polled
    def test_a_give_back_of_any_thread_or_coroutine_wakes_who_has_room(self) -> None:
        spend = new_spend()

        def enter_on_thread() -> None:
            spend.admit(lambda: 1.0, **WAITS).settle(None)

        async def main() -> None:
            async with admitted(spend) as share:
                waiting = asyncio.create_task(enter(admitted(spend)))
                await turns(3)
                self.assertFalse(waiting.done())
                share.settle(Reply(0.25))
            await waiting
            share = spend.admit(lambda: 1.0, **WAITS)
            waiting = asyncio.create_task(enter(admitted(spend)))
            await turns(3)
            await asyncio.to_thread(share.settle, None)
            await waiting
            async with admitted(spend) as share:
                thread = asyncio.create_task(asyncio.to_thread(enter_on_thread))
                await asyncio.sleep(0.05)
                self.assertFalse(thread.done())
            await thread
            self.assertEqual(spend.spent(), 0.25)

        run(main())
        self.assert_nothing_held(spend)

    def test_stop_deadline_midnight_and_errors_end_the_wait(self) -> None:
        stopped, broken = threading.Event(), threading.Event()

        def broken_stop() -> bool:
            return broken.is_set() and bool(1 / 0)

        today = "2024-05-01"
        budget = open_to_loops(RunBudget(10, 1, should_stop=stopped.is_set))
        spend = open_to_loops(DailySpend(1.0, lambda: today, None))
        spend.charge(Reply(0.5))

        async def main() -> None:
            nonlocal today
            start = time.monotonic()
            async with hold(budget, 1.0), admitted(spend, 0.5) as share:
                # The first looks at every poll, the others only when their wait is to end.
                first, timed_out, failed, day_stopped, pass_stopped, refused = [
                    asyncio.create_task(enter(each))
                    for each in (
                        admitted(spend),
                        admitted(spend, deadline=start + 0.25),
                        admitted(spend, stopping=broken_stop),
                        admitted(spend, stopping=stopped.is_set),
                        hold(budget, 1.0),
                        admitted(spend),
                    )
                ]
                for task, ended_by, error in (
                    (timed_out, None, DecisionTimeout),
                    (failed, broken, ZeroDivisionError),
                    (day_stopped, stopped, DecisionStopped),
                    (pass_stopped, None, DecisionStopped),
                ):
                    if ended_by:
                        await asyncio.sleep(0.15)
                        self.assertFalse(task.done())
                        ended_by.set()
                    with self.assertRaises(error):
                        await task
                self.assertTrue(0.25 <= time.monotonic() - start < PATIENCE_S / 2)
                share.settle(Reply(0.5))
                for task in (first, refused):
                    with self.assertRaises(DecisionBudgetExceeded):
                        await task
            today = "2024-05-02"
            spend.charge(Reply(0.5))
            async with admitted(spend, 0.5):
                waiting = asyncio.create_task(enter(admitted(spend)))
                await turns(3)
                self.assertFalse(waiting.done())
                today = "2024-05-03"
                await waiting

        with self.assertLogs(decision_bounds.logger):  # The cap is reached.
            run(main())
        self.assert_nothing_held(budget, spend)

    @never_polled
    def test_a_change_lets_each_call_look_once_until_one_with_a_price_finds_no_room(self) -> None:
        spend = new_spend()
        asked = ""

        async def call(name: str, usd: float, end: asyncio.Event) -> None:
            def bound() -> float:
                nonlocal asked
                asked += name
                return usd

            async with admit(spend, bound, **WAITS):
                await end.wait()

        async def main() -> None:
            nonlocal asked
            ends = {name: asyncio.Event() for name in "abxyzvw"}
            unknown = {"x", "y"}
            calls = [
                asyncio.create_task(call(name, math.inf if name in unknown else 0.5, end))
                for name, end in ends.items()
            ]
            # What ends, and who then looks: x and y must be alone, z, v and w are alike.
            for name, looks in (("a", "xyzv"), ("b", "vw"), ("z", "wxy"), ("v", "xy")):
                await turns(20)
                asked = ""
                ends[name].set()
                await turns(20)
                self.assertEqual(asked, looks)
            for end in ends.values():
                end.set()
            await asyncio.gather(*calls)

        run(main())
        self.assert_nothing_held(spend)

    @never_polled
    def test_a_call_cancelled_at_any_step_holds_nothing_and_passes_on_its_wake(self) -> None:
        budget, spend = new_budget(), new_spend()

        async def call() -> None:
            async with hold(budget, 1.0) as tokens:
                await turns(1)
                async with admitted(spend) as usd:
                    await turns(1)
                    usd.settle(Reply())
                tokens.settle(Reply())

        async def main() -> None:
            finished = 0
            for steps in range(16):
                async with hold(budget, 1.0), admitted(spend):
                    first, second = asyncio.create_task(call()), asyncio.create_task(call())
                    await turns(2)
                await turns(steps)
                first.cancel()
                await asyncio.gather(first, return_exceptions=True)
                finished += not first.cancelled()
                await second
                self.assert_nothing_held(budget, spend)
            self.assertTrue(0 < finished < 16)

        run(main())

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
            loops = [pool.submit(lambda seed=seed: run(calls(seed))) for seed in (1, 2)]
            for done in [*loops, pool.submit(thread)]:
                done.result()
        self.assertLessEqual(most_in_flight, 3)
        self.assertEqual(budget.calls, 600)
        self.assertAlmostEqual(spend.spent(), 0.06)
        self.assert_nothing_held(budget, spend)

    @never_polled
    def test_calls_of_a_closed_loop_hold_up_nobody(self) -> None:
        spend = new_spend()
        gone = 0

        async def call() -> None:
            nonlocal gone
            try:
                async with admitted(spend):
                    await asyncio.sleep(1000)
            finally:
                gone += 1

        loop = asyncio.new_event_loop()
        loop.set_exception_handler(lambda *_: None)  # It tells of each task that is left.
        tasks = [loop.create_task(call()) for _ in range(3)]
        loop.run_until_complete(turns(3))
        loop.close()
        del tasks
        gc.collect()
        # The call in flight gave back what it held, and nothing keeps those that waited.
        run(enter(admitted(spend)))
        gc.collect()
        self.assertEqual(gone, 3)
        self.assert_nothing_held(spend)

    def test_1000_calls_wait_without_a_thread_and_the_loop_goes_on(self) -> None:
        budget, spend = new_budget(20), new_spend()

        async def call() -> None:
            async with hold(budget, 1.0), admitted(spend, 0.1) as usd:
                await asyncio.sleep(0.02)
                usd.settle(Reply())

        async def main() -> None:
            threads = threading.active_count()
            calls = [asyncio.create_task(call()) for _ in range(1000)]
            await turns(1)  # Starting them is no wait.
            async with Heartbeat() as beat:
                await asyncio.gather(*calls)
            print(
                f"\n1,000 waiting calls: a beat came {beat.latest_s * 1000:.1f} ms late at most,"
                f" after {beat.longest_work_s * 1000:.1f} ms of work"
            )
            self.assertEqual(threading.active_count(), threads)
            self.assertLess(beat.longest_work_s, 0.1)
            self.assertLess(beat.latest_s, 1.0)

        run(main())
        self.assert_nothing_held(budget, spend)

    def test_what_would_stop_the_loop_or_leak_is_refused(self) -> None:
        spend = new_spend()

        async def main() -> None:
            with spend.admit(lambda: 1.0, **WAITS):
                with self.assertRaisesRegex(RuntimeError, "stop the event loop"):
                    spend.admit(lambda: 1.0, **WAITS)
            with self.assertRaises(TypeError):
                await admitted(spend)  # type: ignore[misc]
            with self.assertRaisesRegex(TypeError, "open_to_loops"):
                hold(RunBudget(1, 1), 1.0)

        run(main())
        self.assert_nothing_held(spend)


if __name__ == "__main__":
    unittest.main()
