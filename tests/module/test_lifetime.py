"""Cycles, deep chains, references, and objects that are not set up or change under a call."""

from __future__ import annotations

import gc
import sys
import unittest
import weakref
from unittest import mock

from tests.module.support import Boom, LoggedReply, Reply
from tests.module.support import account, admit, bounds, extension_only, is_free


class LifetimeTest(unittest.TestCase):
    def test_cycles_are_collected(self) -> None:
        share, held, rates, dated = bounds.Share(), bounds._Held(), bounds.RequestRates(), account()
        share._give_back, held.amount, rates._cost = share.settle, held, rates
        dated._today = lambda: dated
        asked, holding, sharing = bounds.RunBudget(1, 9), bounds.RunBudget(1, 9), account()
        asked.should_stop, holding.note = asked.stopping, holding.hold(1.0)
        sharing.note = admit(sharing)
        made = [share, held, rates, dated, asked, holding, sharing]
        references = list(map(weakref.ref, made))
        del share, held, rates, dated, asked, holding, sharing, made
        gc.collect()
        self.assertEqual({reference() for reference in references}, {None})

    def test_nothing_keeps_what_it_has_used(self) -> None:
        boom, reply, amount = Boom(), Reply(cost=0.5), float("2.5")
        unread = LoggedReply(Reply(), "cost", boom)
        used = [boom, reply, amount, unread, bounds.Share, bounds._Held, bounds._Charges]
        used += [bounds.RequestRates, bounds.RunBudget, bounds.DailySpend, bounds.never]

        def use() -> None:
            budget, spend = bounds.RunBudget(9, 99), account()
            bounds.RequestRates().learn(1, "rank", reply)
            budget.hold(amount).settle(reply)
            admit(spend, amount).settle(reply)
            for operation in (budget.hold(amount).settle, admit(spend).settle, spend.charge):
                self.assertRaises(Boom, operation, unread)
            self.assertRaises(bounds.DecisionBudgetExceeded, bounds.RunBudget(0, 0).hold, amount)
            self.assertRaises(TypeError, budget.hold, amount, reply)
            boom.__traceback__ = None

        counts = []
        for _ in range(3):
            use()
            gc.collect()
            counts.append([sys.getrefcount(value) for value in used])
        self.assertEqual(counts[1], counts[2])

    def test_deep_chains_end_without_a_crash(self) -> None:
        share, held = bounds.Share(), bounds._Held()
        for _ in range(50_000):
            share, held = bounds.Share(share.settle), bounds._Held(amount=held)
        self.assertRaises(RecursionError, share.settle, None)
        self.assertRaises(RecursionError, repr, held)

    def test_missing_fields_are_attribute_errors(self) -> None:
        for make, use, fields in (
            (bounds.Share, bounds.Share.__exit__, "_give_back"),
            (bounds.RequestRates, lambda it: it.learn(1, "a", Reply()), "_lock _tokens _features"),
            (account, admit, "_cap _today _ledger _changed _held _day"),
            (lambda: bounds.RunBudget(9, 9), bounds.RunBudget.exhausted, "max_calls _changed"),
        ):
            for field in fields.split():
                made = make()
                delattr(made, field)
                self.assertRaises(AttributeError, use, made)
            for made in (object(), type(made).__new__(type(made))):
                self.assertRaises((AttributeError, TypeError), use, made)

    @extension_only
    def test_records_that_are_not_set_up_have_no_fields(self) -> None:
        empty, budget = bounds._Held.__new__(bounds._Held), bounds.RunBudget(9, 9)
        del budget.calls
        for use in (lambda: empty.take(1.0), empty.__repr__, budget.summary):
            self.assertRaises(AttributeError, use)
        self.assertTrue(is_free(budget._changed))

    def test_what_changes_under_a_call_does_no_harm(self) -> None:
        budget, spend, tokens = bounds.RunBudget(9, 9), account(), mock.MagicMock()
        tokens.__radd__ = lambda _, other: setattr(budget, "_held_tokens", None)
        self.assertIs(type(budget.hold(tokens)), bounds.Share)
        budget.should_stop = lambda: setattr(budget, "should_stop", None)
        self.assertFalse(budget.stopping())
        entered, spend._today = spend._changed, lambda: setattr(spend, "_changed", None)
        self.assertEqual((spend.spent(), is_free(entered)), (0.0, True))
        shares = [bounds.Share(lambda reply: shares.clear())]
        shares[0].settle(None)
