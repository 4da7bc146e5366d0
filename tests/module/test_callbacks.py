"""What callers hand in: how often each function and reply is asked, and what its errors leave."""

from __future__ import annotations

import math
import sys
import traceback
import unittest
from collections.abc import Iterator
from decimal import Decimal
from functools import partial
from typing import Any
from unittest import mock

from tests.module.support import TODAY, Boom, LoggedCondition, LoggedReply, Reply
from tests.module.support import account, admit, bounds, full_budget, is_free


class CallbacksTest(unittest.TestCase):
    def fails(self, error: BaseException, operation: Any, *args: Any) -> None:
        """Check that the call raises the very ``error``, with nothing added to it."""
        with self.assertRaises(type(error)) as caught:
            operation(*args)
        self.assertIs(caught.exception, error)
        self.assertIsNone(error.__context__)

    def test_only_the_stop_that_never_comes_is_not_asked(self) -> None:
        budget = bounds.RunBudget(9, 9, should_stop=bounds._nothing)
        self.assertRaises(TypeError, budget.stopping)

    def test_a_failing_stop_leaves_the_budget_as_it_was(self) -> None:
        for answers in range(3):  # Fails on entry, in the first wait and in the next.
            boom = Boom()
            budget = full_budget()
            budget.should_stop = mock.Mock(side_effect=[False] * answers + [boom])
            self.fails(boom, budget.hold, 1.0)
            self.assertEqual(budget, full_budget())
            self.assertEqual(budget._held_tokens, bounds._Held(1, 9.0))
            self.assertTrue(is_free(budget._changed))

    def test_failing_functions_leave_the_account_as_it_was(self) -> None:
        boom = Boom()
        fail = mock.Mock(side_effect=boom)
        late = mock.Mock(side_effect=[False, boom])
        unread = LoggedReply(Reply(), "cost", boom)
        for spend, held, operation in (
            (account(today=fail), 0.0, bounds.DailySpend.spent),
            (account(today=fail), 0.0, admit),
            (account(today=fail), 0.0, lambda it: it.charge(Reply(cost=1.0))),
            (account(ledger=fail), 0.0, admit),
            (account(), 0.0, lambda it: admit(it, bound=fail)),
            (account(), 0.0, lambda it: it.charge(unread)),
            (account(), 5.0, lambda it: admit(it, stopping=late)),
            (account(), 5.0, lambda it: admit(it, deadline=1.0, clock=fail)),
        ):
            spend._held.amount = held
            spend._changed.notify_all = mock.Mock()
            self.fails(boom, operation, spend)
            self.assertEqual(spend._held, bounds._Held(0, held))
            self.assertEqual(spend._cost, 0.0)
            spend._changed.notify_all.assert_not_called()
            self.assertTrue(is_free(spend._changed))

    def test_settling_gives_the_amount_back_whatever_fails(self) -> None:
        boom = Boom()
        for today in (mock.Mock(side_effect=boom), lambda: TODAY):
            spend = account()
            share = admit(spend, 2.0)
            spend._today = today
            spend._changed.notify_all = mock.Mock()
            self.fails(boom, share.settle, LoggedReply(Reply(), "cost", boom))
            spend._changed.notify_all.assert_called_once_with()
            self.assertEqual(spend._held, bounds._Held())
            self.assertEqual(spend._cost, 0.0)
            self.assertTrue(is_free(spend._changed))
        try:
            admit(account()).settle(LoggedReply(Reply(), "cost", boom))
        except Boom:
            frames = traceback.extract_tb(boom.__traceback__)
            self.assertEqual(frames[-1].name, "__getattr__")

    def test_replies_are_read_once_in_order_and_what_was_done_stays(self) -> None:
        order = ["cached", "input_tokens", "cost"]
        # The budget after the first, the second and the third reading failed.
        in_flight = bounds.RunBudget(9, 9, in_flight=1)
        called = bounds.RunBudget(9, 9, calls=1)
        used = bounds.RunBudget(9, 9, calls=1, input_tokens=5)
        for reads, left in enumerate([in_flight, called, used], start=1):
            boom = Boom()
            budget = bounds.RunBudget(9, 9)
            budget._changed.notify_all = mock.Mock()
            reply = LoggedReply(Reply(False, 5, 0.5), order[reads - 1], boom)
            self.fails(boom, budget.hold(3.0).settle, reply)
            self.assertEqual(reply.reads, order[:reads])
            self.assertEqual(budget, left)
            self.assertEqual(budget._held_tokens.holders, left.in_flight)
            budget._changed.notify_all.assert_not_called()
            self.assertTrue(is_free(budget._changed))
        hit = LoggedReply(Reply(cached=True))
        budget.hold(3.0).settle(hit)
        admit(account()).settle(hit)
        self.assertEqual(hit.reads, ["cached", "cost"])
        self.assertEqual(budget.cache_hits, 1)

    def test_a_failing_ledger_is_logged_and_counts_nothing(self) -> None:
        unread = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
        unreadable = mock.MagicMock(__float__=mock.Mock(side_effect=LookupError))
        for answer, kind in ((EOFError, EOFError), ("much", ValueError), (unreadable, LookupError)):
            spend = account(ledger=mock.Mock(side_effect=[answer]))
            with self.assertLogs(bounds.logger, "WARNING") as logs:
                for _ in range(2):
                    self.assertEqual(repr(spend.spent()), "0.0")
            (record,) = logs.records
            self.assertEqual(record.msg, unread)
            self.assertEqual(record.args, (TODAY,))
            assert record.exc_info
            self.assertIs(record.exc_info[0], kind)
            self.assertIs(type(record.exc_info[1]), kind)
            self.assertIsNotNone(record.exc_info[2])
        for interrupt in (KeyboardInterrupt, SystemExit, GeneratorExit):
            spend = account(ledger=mock.Mock(side_effect=[interrupt, "2.5"]))
            self.assertRaises(interrupt, spend.spent)
            self.assertEqual(spend._day, "")
            self.assertEqual(repr(spend.spent()), "2.5")

    def test_a_share_is_given_back_once_whatever_that_raises(self) -> None:
        boom = Boom()
        ended = KeyboardInterrupt()
        give_back = mock.Mock(side_effect=boom)
        share = bounds.Share(give_back)
        self.fails(boom, share.settle, None)
        with self.assertRaises(KeyboardInterrupt), share:
            share.settle(Reply())
            raise ended
        give_back.assert_called_once_with(None)
        with self.assertRaises(Boom), bounds.Share(give_back):
            raise ended
        self.assertIs(boom.__context__, ended)

    @mock.patch.object(bounds, "_wait", mock.Mock(side_effect=AssertionError("nobody ends this")))
    def test_what_cannot_be_taken_or_shared_leaves_nothing_more_held(self) -> None:
        boom = Boom()
        for holders, share in ((0, math.inf), (1, 1.0)):
            budget = bounds.RunBudget(9, 9, _held_tokens=bounds._Held(holders))
            spend = account()
            spend._held = bounds._Held(holders)
            for operation in (budget.reserve, budget.hold, partial(admit, spend)):
                self.assertRaises(TypeError, operation, Decimal(1))
                self.assertRaises(OverflowError, operation, 10**400)
            with mock.patch.object(bounds, "Share", side_effect=boom):
                self.fails(boom, budget.hold, share)
                self.fails(boom, admit, spend, share)
            self.assertEqual(budget, bounds.RunBudget(9, 9))
            self.assertEqual(budget._held_tokens, bounds._Held(holders))
            self.assertEqual(spend._held, bounds._Held(holders))

    def test_a_subclass_of_the_tally_holds_nothing_more_either(self) -> None:
        class Tally(bounds._Held):  # type: ignore[misc]
            pass

        budget = bounds.RunBudget(9, 9, _held_tokens=Tally())
        self.assertRaises(TypeError, budget.reserve, Decimal(1))
        self.assertEqual(budget._held_tokens, Tally())
        budget.reserve(1.0)
        self.assertEqual(budget._held_tokens, Tally(1, 1.0))

    def test_a_share_that_cannot_be_added_has_its_holder_counted(self) -> None:
        held = bounds._Held(1, 0.5)
        self.assertRaises(TypeError, held.take, Decimal(1))
        self.assertEqual(held, bounds._Held(2, 0.5))
        self.assertRaises(TypeError, held.take, "inf")
        self.assertEqual(held, bounds._Held(3, 0.5))

    def test_a_generator_goes_on_to_handle_what_it_handled(self) -> None:
        budget = bounds.RunBudget(9, 9)

        def failing() -> Iterator[Any]:
            while True:
                self.assertRaises(TypeError, budget.reserve, Decimal(1))
                yield sys.exc_info()[1]

        steps = failing()
        try:
            raise LookupError
        except LookupError as error:
            self.assertIs(next(steps), error)
            self.assertRaises(TypeError, budget.reserve, Decimal(1))
            self.assertIs(sys.exc_info()[1], error)
        self.assertIsNone(next(steps))

    def test_functions_are_asked_as_often_as_the_call_tests(self) -> None:
        asked = mock.Mock()  # Notes in one order what is asked of each of its functions.
        asked.today.return_value = TODAY
        asked.ledger.return_value = 1.0
        asked.bound.side_effect = [math.inf, math.inf, 2.5]
        asked.stopping.return_value = False
        asked.clock.return_value = 1.0
        spend = account(today=asked.today, ledger=asked.ledger)
        first = admit(spend, 4.0)
        asked.wait.side_effect = lambda: asked.wait.call_count == 2 and first.settle(None)
        spend._changed = LoggedCondition(asked.wait)
        waiting = dict(deadline=9.0, clock=asked.clock, stopping=asked.stopping)
        share = admit(spend, bound=asked.bound, **waiting)
        test = ["today", "bound", "stopping", "clock", "wait"]
        names = [call[0] for call in asked.mock_calls]
        self.assertEqual(names, ["today", "ledger", *test, *test, "today", "bound"])
        self.assertEqual(spend._held, bounds._Held(1, 2.5))
        asked.reset_mock()
        share.settle(Reply(cost=4.0))
        with mock.patch.object(bounds, "logger"):
            self.assertRaises(bounds.DecisionBudgetExceeded, spend.admit, asked.bound, **waiting)
        self.assertEqual(asked.mock_calls, [mock.call.today()] * 2)
