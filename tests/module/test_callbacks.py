"""What callers hand in: how often each function and reply is asked, and what its errors leave."""

from __future__ import annotations

import math
import unittest
from decimal import Decimal
from typing import Any
from unittest import mock

from tests.module.support import TODAY, Boom, LoggedCondition, LoggedReply, Reply
from tests.module.support import account, admit, bounds, is_free


class CallbacksTest(unittest.TestCase):
    def fails(self, error: BaseException, operation: Any, *args: Any) -> None:
        """Check that the call raises the very ``error``, with nothing added to it."""
        with self.assertRaises(type(error)) as caught:
            operation(*args)
        self.assertIs(caught.exception, error)
        self.assertEqual((error.__context__, error.__cause__), (None, None))

    def test_a_failing_stop_leaves_the_budget_as_it_was(self) -> None:
        for answers in ([], [False], [False, False]):  # On entry, in the first wait, in the next.
            budget, boom = bounds.RunBudget(9, 9, _held_tokens=bounds._Held(1, 9.0)), Boom()
            budget.should_stop = mock.Mock(side_effect=[*answers, boom])
            self.fails(boom, budget.hold, 1.0)
            self.assertEqual((budget, budget._held_tokens.holders), (bounds.RunBudget(9, 9), 1))
            self.assertTrue(is_free(budget._changed))

    def test_failing_functions_leave_the_account_as_it_was(self) -> None:
        boom = Boom()
        fail, unread = mock.Mock(side_effect=boom), LoggedReply(Reply(), "cost", boom)
        late = mock.Mock(side_effect=[False, boom])
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
            self.fails(boom, operation, spend)
            self.assertEqual((spend._held, spend._cost), (bounds._Held(0, held), 0.0))
            self.assertTrue(is_free(spend._changed))

    def test_settling_gives_the_amount_back_whatever_fails(self) -> None:
        boom = Boom()
        for today in (mock.Mock(side_effect=boom), lambda: TODAY):
            spend = account()
            share, spend._today = admit(spend, 2.0), today
            with mock.patch.object(spend._changed, "notify_all") as notify_all:
                self.fails(boom, share.settle, LoggedReply(Reply(), "cost", boom))
            notify_all.assert_called_once_with()
            self.assertEqual((spend._held, spend._cost), (bounds._Held(), 0.0))
            self.assertTrue(is_free(spend._changed))

    def test_replies_are_read_once_in_order_and_what_was_done_stays(self) -> None:
        order = ["cached", "input_tokens", "cost"]
        # In flight, calls, input tokens and cost after the first, second and third reading failed.
        for number, counted in enumerate([(1, 0, 0, 0.0), (0, 1, 0, 0.0), (0, 1, 5, 0.0)]):
            budget, boom = bounds.RunBudget(9, 9), Boom()
            reply = LoggedReply(Reply(False, 5, 0.5), order[number], boom)
            self.fails(boom, budget.hold(3.0).settle, reply)
            self.assertEqual(reply.reads, order[: number + 1])
            count = (budget.in_flight, budget.calls, budget.input_tokens, budget.cost)
            self.assertEqual((count, budget._held_tokens.holders), (counted, counted[0]))
            self.assertTrue(is_free(budget._changed))
        hit = LoggedReply(Reply(cached=True))
        budget.hold(3.0).settle(hit)
        admit(account()).settle(hit)
        self.assertEqual((hit.reads, budget.cache_hits), (["cached", "cost"], 1))

    def test_a_failing_ledger_is_logged_and_counts_nothing(self) -> None:
        unread = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
        unreadable = mock.MagicMock(__float__=mock.Mock(side_effect=LookupError))
        for answer, kind in ((EOFError, EOFError), ("much", ValueError), (unreadable, LookupError)):
            spend = account(ledger=mock.Mock(side_effect=[answer]))
            with self.assertLogs(bounds.logger, "WARNING") as logs:
                self.assertEqual(repr((spend.spent(), spend.spent())), "(0.0, 0.0)")
            (record,) = logs.records
            self.assertEqual((record.msg, record.args), (unread, (TODAY,)))
            self.assertEqual((record.exc_info[0], type(record.exc_info[1])), (kind, kind))
        for kind in (KeyboardInterrupt, SystemExit, GeneratorExit):
            spend = account(ledger=mock.Mock(side_effect=[kind, "2.5"]))
            self.assertRaises(kind, spend.spent)
            self.assertEqual((spend._day, repr(spend.spent())), ("", "2.5"))

    def test_a_share_is_given_back_once_whatever_that_raises(self) -> None:
        boom, ended = Boom(), KeyboardInterrupt()
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

    def test_what_cannot_be_taken_or_shared_leaves_nothing_held(self) -> None:
        budget, spend, boom = bounds.RunBudget(9, 9), account(), Boom()
        for operation in (budget.reserve, budget.hold, lambda amount: admit(spend, amount)):
            self.assertRaises(TypeError, operation, Decimal(1))
            self.assertRaises(OverflowError, operation, 10**400)
        with mock.patch.object(bounds, "Share", side_effect=boom):
            for amount in (1.0, math.inf):
                self.fails(boom, budget.hold, amount)
                self.fails(boom, admit, spend, amount)
        self.assertEqual(budget, bounds.RunBudget(9, 9))
        self.assertEqual((budget._held_tokens, spend._held), (bounds._Held(), bounds._Held()))

    def test_functions_are_asked_as_often_as_the_call_tests(self) -> None:
        asked: list[str] = []

        def answers(name: str, *values: Any) -> Any:
            left = list(values)
            return lambda *_: asked.append(name) or (left.pop(0) if len(left) > 1 else left[0])

        spend = account(today=answers("today", TODAY), ledger=answers("ledger", 1.0))
        first, waits = admit(spend, 4.0), [lambda: None, lambda: first.settle(None)]
        spend._changed = LoggedCondition(lambda: asked.append("wait") or waits.pop(0)())
        waiting = dict(deadline=9.0, clock=answers("clock", 1.0), stopping=answers("stop", False))
        share = admit(spend, bound=answers("bound", math.inf, math.inf, 2.5), **waiting)
        test = ["today", "bound", "stop", "clock", "wait"]
        self.assertEqual(asked, ["today", "ledger", *test, *test, "today", "bound"])
        self.assertEqual(spend._held, bounds._Held(1, 2.5))
        share.settle(Reply(cost=4.0))
        with mock.patch.object(bounds, "logger"):
            self.assertRaises(bounds.DecisionBudgetExceeded, spend.admit, share, **waiting)
        self.assertEqual(asked[14:], ["today", "today"])
