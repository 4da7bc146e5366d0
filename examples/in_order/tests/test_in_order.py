"""Calls are admitted in the order in which they came, and whoever leaves the queue holds up nobody."""

from __future__ import annotations

import asyncio
import gc
import math
import os
import random
import signal
import threading
import time
import unittest
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any, Callable
from unittest import mock

from engines import decision_bounds
from engines.decision_bounds import DailySpend, RunBudget, never
from engines.decision_bounds import DecisionBudgetExceeded, DecisionStopped, DecisionTimeout

from ...asyncio_pass.admission import admit, open_to_loops
from ..bounds import BudgetInOrder, InTurn, SpendInOrder
from ..turnstile import Turnstile

PATIENCE_S = 30.0
WAITS: Any = {"deadline": None, "clock": time.monotonic, "stopping": never}

# So long that no poll hides a wake-up that was lost.
never_polled = mock.patch.object(decision_bounds, "_POLL_S", 1000.0)


def until(reached: Callable[[], bool]) -> None:
    """Wait for ``reached``; the test fails where it does not come."""
    give_up = time.monotonic() + PATIENCE_S
    while not reached():
        assert time.monotonic() < give_up
        time.sleep(0.0005)


def waiting(turnstile: Turnstile) -> int:
    return len(turnstile._queue)


class InOrderTest(unittest.TestCase):
    def setUp(self) -> None:
        self.day = SpendInOrder(open_to_loops(DailySpend(1.0, lambda: "2024-05-01", None)))
        self.pool = ThreadPoolExecutor(80)
        self.addCleanup(self.pool.shutdown)
        self.admitted: list[object] = []
        self.ways: list[Callable[..., object]] = [self.enter, self.on_loop]

    def enter(self, name: object, usd: float = 1.0, **waits: Any) -> None:
        """One call on a thread."""
        with self.day.admit(lambda: usd, **{**WAITS, **waits}):
            self.admitted.append(name)

    async def enter_on_loop(self, name: object, usd: float = 1.0, **waits: Any) -> None:
        """One call of a coroutine."""
        every: Any = {**WAITS, **waits}
        turn = self.day.turnstile.turn(**every)
        async with InTurn(turn, admit(self.day.spend, lambda: usd, **every)):
            self.admitted.append(name)

    def queued(self, call: Callable[..., object], *arguments: Any, **waits: Any) -> Future[Any]:
        """Start ``call`` on a thread, and return when it is in the queue."""
        before = waiting(self.day.turnstile)
        started = self.pool.submit(call, *arguments, **waits)
        until(lambda: waiting(self.day.turnstile) > before)
        return started

    def on_loop(self, *arguments: Any, **waits: Any) -> None:
        """One call of a coroutine, on a loop and a thread of its own."""
        asyncio.run(self.enter_on_loop(*arguments, **waits))

    def assert_free(self) -> None:
        """Nobody is in the queue, and the next call is admitted."""
        self.enter("next")
        self.assertEqual(self.admitted[-1], "next")
        self.assertEqual(waiting(self.day.turnstile), 0)
        self.assertEqual(self.day.spend._held.holders, 0)  # type: ignore[attr-defined]

    @never_polled
    def test_64_threads_and_loops_are_admitted_in_the_order_of_their_arrival(self) -> None:
        chance = random.Random(1)
        with self.day.admit(lambda: 1.0, **WAITS):
            calls = [
                self.queued(
                    chance.choices(self.ways, (3, 1))[0],
                    name,
                    chance.choice((1.0, 2.0, math.inf)),
                )
                for name in range(64)
            ]
        for call in calls:
            call.result(PATIENCE_S)
        self.assertEqual(self.admitted, list(range(64)))
        self.assert_free()

    def test_a_first_call_of_a_kind_waits_for_the_calls_in_flight_alone(self) -> None:
        give_up = time.monotonic() + PATIENCE_S
        budget = RunBudget(10**9, 4, should_stop=lambda: time.monotonic() > give_up)
        in_order = BudgetInOrder(budget)
        ended = threading.Event()

        def never_pausing() -> None:
            while not ended.is_set():
                with in_order.hold(1.0):
                    self.admitted.append("known")
                    time.sleep(0.0005)

        callers = [self.pool.submit(never_pausing) for _ in range(8)]
        until(lambda: len(self.admitted) > 20)
        try:
            for _ in range(20):
                with in_order.hold(math.inf):
                    self.assertEqual(budget.in_flight, 1)
        finally:
            ended.set()
        for caller in callers:
            caller.result(PATIENCE_S)

    def test_a_stop_of_the_pass_ends_the_waits_in_its_queue(self) -> None:
        stopped = threading.Event()
        in_order = BudgetInOrder(RunBudget(9, 9, should_stop=stopped.is_set))
        with in_order.turnstile.turn():
            waits = self.pool.submit(in_order.hold, 1.0)
            until(lambda: waiting(in_order.turnstile) == 2)
            time.sleep(0.15)  # Longer than a poll.
            self.assertFalse(waits.done())
            stopped.set()
            with self.assertRaises(DecisionStopped):
                waits.result(PATIENCE_S)

    def test_whoever_leaves_the_queue_loses_no_turn(self) -> None:
        stopped = threading.Event()
        now_s = 0.0
        for enter in self.ways:
            for at_front in (True, False):
                stopped.clear()
                now_s = 0.0
                with self.subTest(enter=enter, at_front=at_front):
                    with self.day.admit(lambda: 1.0, **WAITS):
                        before = [] if at_front else [self.queued(self.enter, "first")]
                        timed_out = self.queued(enter, "late", deadline=1.0, clock=lambda: now_s)
                        stops = self.queued(enter, "stopped", stopping=stopped.is_set)
                        after = self.queued(enter, "last")
                        now_s = 1.0
                        with self.assertRaises(DecisionTimeout):
                            timed_out.result(PATIENCE_S)
                        stopped.set()
                        at_once = self.pool.submit(enter, "stopped", stopping=stopped.is_set)
                        for call in (stops, at_once):
                            with self.assertRaises(DecisionStopped):
                                call.result(PATIENCE_S)
                    for call in (*before, after):
                        call.result(PATIENCE_S)
                    self.assertEqual(self.admitted.pop(), "last")
                    self.assert_free()

    def test_an_interrupt_ends_the_wait_of_the_main_thread(self) -> None:
        # A shell's background job is started with the signal ignored.
        before_test = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, before_test)
        for at_front in (True, False):
            with self.day.admit(lambda: 1.0, **WAITS):
                before = [] if at_front else [self.queued(self.enter, "first")]
                length = waiting(self.day.turnstile)

                def interrupt() -> None:
                    until(lambda: waiting(self.day.turnstile) > length)
                    time.sleep(0.02)
                    os.kill(os.getpid(), signal.SIGINT)

                interrupting = self.pool.submit(interrupt)
                with self.assertRaises(KeyboardInterrupt):
                    self.enter("interrupted")
                interrupting.result(PATIENCE_S)
                after = self.queued(self.enter, "last")
            for call in (*before, after):
                call.result(PATIENCE_S)
            self.assert_free()

    @never_polled
    def test_a_coroutine_cancelled_at_any_step_leaves_its_turn_to_the_next(self) -> None:
        async def main() -> None:
            finished = 0
            for steps in range(24):
                with self.day.admit(lambda: 1.0, **WAITS):
                    calls = [asyncio.create_task(self.enter_on_loop(name)) for name in range(3)]
                    await asyncio.sleep(0)
                for _ in range(steps // 2):
                    await asyncio.sleep(0)
                # The one at the front or, in every other run, the one behind it.
                cancelled = calls[steps % 2]
                cancelled.cancel()
                await asyncio.wait_for(asyncio.gather(*calls, return_exceptions=True), PATIENCE_S)
                finished += not cancelled.cancelled()
            self.assertTrue(0 < finished < 24)

        asyncio.run(main())
        self.assert_free()

    def test_a_coroutine_that_has_its_turn_is_not_asked_for_a_stop(self) -> None:
        asked = 0

        def stop() -> bool:
            nonlocal asked
            asked += 1
            return False

        async def main() -> None:
            with self.day.turnstile.turn():
                waits = asyncio.create_task(enter())
                await asyncio.sleep(0.15)
                self.assertIn(asked, range(2, 50))
            await waits

        async def enter() -> None:
            async with self.day.turnstile.turn(stopping=stop):
                before = asked
                await asyncio.sleep(0.25)
                self.assertEqual(asked, before)

        asyncio.run(main())

    def test_a_turn_and_a_stop_may_come_together(self) -> None:
        stopped, tell = threading.Event(), mock.Mock()

        async def main(turn_is_first: bool) -> None:
            stopped.clear()
            asyncio.get_running_loop().set_exception_handler(tell)
            with self.day.turnstile.turn():
                waits = asyncio.create_task(enter())
                await asyncio.sleep(0.02)
                stopped.set()
                time.sleep(0.15)  # The next poll is due.
                if not turn_is_first:
                    await asyncio.sleep(0)
            (ended,) = await asyncio.gather(waits, return_exceptions=True)
            self.assertIs(type(ended), type(None) if turn_is_first else DecisionStopped)

        async def enter() -> None:
            async with self.day.turnstile.turn(stopping=stopped.is_set):
                pass

        for turn_is_first in (True, False):
            asyncio.run(main(turn_is_first))
        tell.assert_not_called()

    def test_a_caller_at_the_front_that_fails_hands_the_turn_on(self) -> None:
        def failing() -> float:
            raise ZeroDivisionError

        for broken in (lambda: self.day.admit(failing, **WAITS), lambda: self.on_loop("", "price")):
            with self.day.admit(lambda: 0.5, **WAITS):
                blocked = self.queued(self.enter, "unknown", math.inf)
                fails = self.queued(broken)
                last = self.queued(self.enter, "last", 0.5)
            with self.assertRaises((ZeroDivisionError, TypeError)):
                fails.result(PATIENCE_S)
            for call in (blocked, last):
                call.result(PATIENCE_S)
        budget = BudgetInOrder(RunBudget(0, 1))
        for _ in range(2):
            with self.assertRaises(DecisionBudgetExceeded):
                budget.hold(1.0)
        self.assert_free()

    def test_coroutines_of_a_closed_loop_keep_no_turn(self) -> None:
        loop = asyncio.new_event_loop()
        loop.set_exception_handler(
            lambda _loop, _context: None
        )  # It tells of each task that is left.

        async def main() -> None:
            for name in (1, 2):
                loop.create_task(self.enter_on_loop(name))
                await asyncio.sleep(0)

        left = threading.Event()
        with self.day.admit(lambda: 1.0, **WAITS):
            front = self.queued(self.enter, "front", stopping=left.is_set)
            loop.run_until_complete(main())
            last = self.queued(self.enter, "last")
            left.set()
            self.assertIsInstance(front.exception(PATIENCE_S), DecisionStopped)
            # The first of the coroutines is called by now, and neither has run again.
            loop.close()
        with self.day.turnstile._lock:  # The collection may come on a thread that has it.
            gc.collect()
        last.result(PATIENCE_S)
        self.assertEqual(self.admitted, ["last"])
        self.assert_free()


if __name__ == "__main__":
    unittest.main()
