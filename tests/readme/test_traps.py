"""What the README says of replies that a pass cannot use, and of libraries that try again."""

from __future__ import annotations

import time
import unittest
from collections.abc import Callable
from dataclasses import dataclass
from types import SimpleNamespace
from typing import Any

from engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    RunBudget,
    Share,
    never,
)

from tests.readme.support import in_background

TOKENS = 60


@dataclass
class Reply:
    input_tokens: Any = 10
    cost: float = 0.5
    cached: bool = False


def admit(day: DailySpend) -> Share:
    return day.admit(lambda: 0.5, deadline=None, clock=time.monotonic, stopping=never)


class LibraryError(Exception):
    """What a client library makes of every error of its transport."""


def library(transport: Callable[[], Reply], tries: int = 3) -> Reply:
    """Ask as a client library does that tries again by itself."""
    for attempt in range(1, tries + 1):
        try:
            return transport()
        except Exception as error:
            if attempt == tries:
                raise LibraryError from error
    raise AssertionError


class RepliesTest(unittest.TestCase):
    def setUp(self) -> None:
        self.budget = RunBudget(9, 100)
        self.day: Any = DailySpend(5.0, str, None)

    def settle(self, reply: Any) -> None:
        """Settle the shares of one call as the README's program does."""
        with self.budget.hold(TOKENS) as of_pass, admit(self.day) as of_day:
            of_day.settle(reply)
            of_pass.settle(reply)

    def held(self) -> tuple[int, float]:
        return self.budget.in_flight, self.budget._held_tokens.amount

    def test_reply_that_keeps_the_share_of_the_pass(self) -> None:
        unlabelled = SimpleNamespace(input_tokens=10, cost=0.5)
        for reply, raised in ((unlabelled, AttributeError), (Reply(cached=True), None)):
            with self.subTest(reply):
                self.setUp()
                if raised is None:
                    self.settle(reply)
                else:
                    self.assertRaises(raised, self.settle, reply)
                self.assertEqual(self.held(), (1, TOKENS))
                self.assertEqual((self.day.spent(), self.day._held.holders), (0.5, 0))

                with self.budget.hold(TOKENS):
                    waiting = in_background(self.settle, Reply())
                    time.sleep(0.25)
                    self.assertFalse(waiting.done())
                    self.budget.release(TOKENS)
                    waiting.result(30)
                self.assertEqual(self.held(), (0, 0.0))
                hits = int(raised is None)
                self.assertEqual((self.budget.calls, self.budget.cache_hits), (1, hits))

    def test_reply_whose_tokens_cannot_be_added(self) -> None:
        with self.budget.hold(TOKENS), self.budget.hold(TOKENS) as settled:
            waiting = in_background(self.settle, Reply())
            time.sleep(0.05)
            self.assertFalse(waiting.done())
            with self.assertRaises(TypeError):
                settled.settle(Reply(input_tokens=None))
            self.assertEqual((self.budget.calls, self.budget.cost), (1, 0.0))
            waiting.result(30)
        self.assertEqual(self.held(), (0, 0.0))
        self.assertEqual((self.budget.calls, self.budget.cost), (2, 0.5))


class RetryingLibraryTest(unittest.TestCase):
    def setUp(self) -> None:
        self.day = DailySpend(2.0, str, None)
        self.billed = 0

    def attempt(self) -> Reply:
        self.billed += 1
        if self.billed < 3:
            raise ConnectionError
        return Reply()

    def bounded(self, call: Callable[[], Reply]) -> Reply:
        """Bound a call as the README's program does."""
        with admit(self.day) as of_day:
            paid = Reply()
            try:
                paid = call()
                return paid
            finally:
                of_day.settle(paid)

    def test_retries_are_counted_only_with_a_share_for_each_attempt(self) -> None:
        self.bounded(lambda: library(self.attempt))
        self.assertEqual((self.billed, self.day.spent()), (3, 0.5))
        self.setUp()
        library(lambda: self.bounded(self.attempt))
        self.assertEqual((self.billed, self.day.spent()), (3, 1.5))

    def test_refusal_inside_the_transport_is_taken_for_an_error_of_the_network(self) -> None:
        self.day.charge(Reply(cost=2.0))
        asked = []

        def transport() -> Reply:
            asked.append(True)
            return self.bounded(self.attempt)

        with self.assertLogs("engines.decision_bounds"), self.assertRaises(LibraryError) as raised:
            library(transport)
        self.assertIsInstance(raised.exception.__cause__, DecisionBudgetExceeded)
        self.assertEqual((len(asked), self.billed), (3, 0))

        with self.assertRaises(DecisionBudgetExceeded):
            self.bounded(lambda: library(self.attempt))
        self.assertEqual(self.billed, 0)
