"""What a call holds and is charged with, without a library."""

from __future__ import annotations

import asyncio
import threading
import time
import unittest
from typing import Any, cast

from engines.decision_bounds import DailySpend, DecisionStopped, RunBudget, never

from examples.clients.bounded import Call, PaidCalls, Prices, Reply


class BoundedTest(unittest.TestCase):
    def setUp(self) -> None:
        self.budget = RunBudget(max_calls=10, max_tokens=1000)
        self.day: Any = DailySpend(1.0, lambda: "2030-02-01", None)
        self.calls = PaidCalls(self.budget, self.day)

    def held(self) -> tuple[int, float, int, float]:
        """How many calls hold how many tokens of the pass, and how many USD of the day."""
        of_pass, of_day = self.budget._held_tokens, self.day._held
        return of_pass.holders, of_pass.amount, of_day.holders, of_day.amount

    def test_call_in_flight_holds_both_bounds(self) -> None:
        with self.calls.hold(Reply(7, 0.5)) as call:
            self.assertEqual(self.held(), (1, 7, 1, 0.5))
            call.read(Reply(5, 0.25))
        self.assertEqual(self.held(), (0, 0, 0, 0.0))

    def test_call_that_waits_for_the_day_ends_when_its_pass_is_stopped(self) -> None:
        stops = iter((False, True))
        self.budget.should_stop = lambda: next(stops)
        waits: dict[str, Any] = dict(deadline=None, clock=time.monotonic, stopping=never)
        with self.day.admit(lambda: 1.0, **waits):
            with self.assertRaises(DecisionStopped), self.calls.hold(Reply(7, 0.5)):
                self.fail("it was admitted")
        self.assertEqual(self.held(), (0, 0, 0, 0.0))

    def test_reply_that_the_pass_cannot_count_is_counted_by_the_day(self) -> None:
        with self.assertRaises(TypeError), self.calls.hold(Reply(7, 0.5)) as call:
            call.read(Reply(cast(int, None), 0.25))
        self.assertEqual(self.day.spent(), 0.25)
        self.assertEqual(self.held(), (0, 0, 0, 0.0))

    def test_tasks_are_admitted_by_one_thread(self) -> None:
        asked: list[int] = []
        submitted = threading.Event()

        def should_stop() -> bool:
            asked.append(threading.get_ident())
            return not submitted.wait(10.0)

        async def ask() -> None:
            async with self.calls.hold_async(Reply(7, 0.25)) as call:
                call.read(Reply(5, 0.25))

        async def ask_all() -> None:
            tasks = [asyncio.create_task(ask()) for _ in range(3)]
            await asyncio.sleep(0)  # Each of them gets as far as its admission.
            submitted.set()
            await asyncio.gather(*tasks)

        self.budget.should_stop = should_stop
        asyncio.run(ask_all())
        self.assertEqual(asked, asked[:1] * 3)

    def test_dearest_reply_has_a_token_for_each_byte_at_the_dearest_price(self) -> None:
        prices = Prices(1.0, 0.5, 2.0, 8.0, extra_input_tokens=50)
        self.assertEqual(prices.dearest("né", 10), Reply(53, 186.0))

    def test_reply_counts_the_tokens_of_each_price(self) -> None:
        self.assertEqual(Prices(1.0, 0.5, 2.0, 8.0).reply(1, 2, 3, 4), Reply(8, 26.5))

    def test_what_a_stream_showed_does_not_replace_the_reply(self) -> None:
        call = Call(Reply(1, 5.0))
        call.read(Reply(1, 1.0))
        call.show(Reply(1, 9.0))
        self.assertEqual(call.paid, Reply(1, 1.0))

    def test_free_call_is_not_unread(self) -> None:
        call = Call(Reply(1, 5.0))
        with self.assertRaises(KeyError), call.free_if(KeyError):
            raise KeyError
        self.assertEqual((call.paid, call.unread), (None, False))
