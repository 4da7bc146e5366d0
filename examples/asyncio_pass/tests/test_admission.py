"""Coroutines wait for room without a thread, and hold nothing when their wait ends otherwise."""

from __future__ import annotations

import asyncio
import gc
import math
import sys
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from engines import decision_bounds
from engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionTimeout,
    RunBudget,
)

from ..admission import admit, hold, open_to_loops
from .support import (
    PATIENCE_S,
    WAITS,
    BoundsTest,
    Reply,
    admitted,
    enter,
    never_polled,
    new_budget,
    new_spend,
    run,
    turns,
)


class AdmissionTest(BoundsTest):
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

    @never_polled
    def test_a_give_back_beside_an_attempt_is_not_missed(self) -> None:
        spend = new_spend()
        interval_s = sys.getswitchinterval()
        self.addCleanup(sys.setswitchinterval, interval_s)

        async def main() -> None:
            for _ in range(500):
                share = spend.admit(lambda: 1.0, **WAITS)
                sys.setswitchinterval(1e-6)
                settled = thread.submit(share.settle, None)
                await enter(admitted(spend))
                sys.setswitchinterval(interval_s)
                settled.result()

        with ThreadPoolExecutor(1) as thread:
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
        loop.set_exception_handler(
            lambda _loop, _context: None
        )  # It tells of each task that is left.
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
