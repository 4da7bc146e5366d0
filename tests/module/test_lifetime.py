"""Cycles, deep chains, references, and objects that are not set up or change under a call."""

from __future__ import annotations

import dataclasses
import gc
import sys
import unittest
import weakref
from collections.abc import Callable
from functools import partial
from typing import Any
from unittest import mock

from tests.module.support import Boom, LoggedReply, Reply
from tests.module.support import account, admit, bounds, extension_only, is_free, load_copy


class LifetimeTest(unittest.TestCase):
    def test_cycles_are_collected(self) -> None:
        budget = partial(bounds.RunBudget, 1, 9)
        cycles: list[tuple[Callable[[], Any], Callable[[Any], None]]] = [
            (bounds.Share, lambda it: setattr(it, "_give_back", it.settle)),
            (bounds._Held, lambda it: setattr(it, "amount", it)),
            (bounds.RequestRates, lambda it: setattr(it, "_cost", it)),
            (budget, lambda it: setattr(it, "should_stop", it.stopping)),
            (budget, lambda it: setattr(it, "note", it.hold(1.0))),
            (budget, lambda it: setattr(it._changed, "note", it)),
            (account, lambda it: setattr(it, "_today", lambda: it)),
            (account, lambda it: setattr(it, "note", admit(it))),
        ]
        for make, close in cycles:
            made = make()
            close(made)
            reference = weakref.ref(made)
            del made
            gc.collect()
            self.assertIsNone(reference())

    def test_a_share_that_is_dropped_gives_nothing_back(self) -> None:
        budget = bounds.RunBudget(9, 9)
        spend = account()
        references = [weakref.ref(share) for share in (budget.hold(3.0), admit(spend, 2.0))]
        gc.collect()
        self.assertEqual([reference() for reference in references], [None, None])
        # Others give back no more than what is theirs.
        budget.hold(4.0).settle(None)
        admit(spend, 1.0).settle(Reply())
        self.assertEqual(budget.in_flight, 1)
        self.assertEqual(budget._held_tokens, bounds._Held(1, 3.0))
        self.assertEqual(spend._held, bounds._Held(1, 2.0))

    def test_nothing_keeps_what_it_has_used(self) -> None:
        boom = Boom()
        reply = Reply(cost=0.5)
        amount = float("2.5")
        unread = LoggedReply(Reply(), "cost", boom)
        used = [boom, Boom, reply, amount, unread, bounds.Share, bounds._Held, bounds._Charges]
        used += [bounds.RequestRates, bounds.RunBudget, bounds.DailySpend, bounds.never]

        def use() -> None:
            budget = bounds.RunBudget(9, 99)
            spend = account()
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
        share = bounds.Share()
        held = bounds._Held()
        for _ in range(50_000):
            share = bounds.Share(share.settle)
            held = bounds._Held(amount=held)
        self.assertRaises(RecursionError, share.settle, None)
        self.assertRaises(RecursionError, repr, held)

    def test_operations_that_call_each_other_for_ever_end_in_an_error(self) -> None:
        spend, held = account(), bounds._Held()

        class Reading:
            cost = property(spend.charge)

        class Converting:
            pass

        looping = Converting()
        Converting.__float__ = staticmethod(partial(held.take, looping))  # type: ignore[attr-defined]
        self.assertRaises(RecursionError, spend.charge, Reading())
        self.assertRaises(RecursionError, held.take, looping)
        self.assertTrue(is_free(spend._changed))

    def test_a_subclass_may_declare_a_field_again(self) -> None:
        class Small(bounds.RunBudget):  # type: ignore[misc]
            max_calls: int = 1
            max_tokens: int = 9
            calls: int = 0

        slotted: Any = dataclasses.dataclass(slots=True)(Small)
        plain: Any = dataclasses.dataclass(Small)
        for small in (plain(), plain(1, 9), slotted(), slotted(1, 9)):
            small.reserve()
            self.assertTrue(small.exhausted())
            small.max_calls = 2
            small.charge(Reply())
            # What is set is used, and what is counted is read.
            self.assertEqual([small.calls, small.summary()["calls"]], [1, 1])
            self.assertFalse(small.exhausted())
        self.assertEqual(dataclasses.replace(small, calls=5).summary()["calls"], 5)

    def test_a_subclass_may_see_to_what_is_set(self) -> None:
        for make, fields in (
            (bounds.Share, "_give_back"),
            (bounds._Charges, "per_byte per_call"),
            (bounds.RequestRates, "_lock _cost _tokens _features"),
            (account, "_cap _today _ledger _changed _held _day _cost _capped"),
        ):
            names: list[str] = []

            class Seeing(type(make())):  # type: ignore[misc]
                _day = per_call = "hidden"

                def __setattr__(self, name: str, value: Any) -> None:
                    names.append(name)
                    super().__setattr__(name, value)

            with mock.patch.object(bounds, Seeing.__base__.__name__, Seeing):
                made = make() if make is account else Seeing()
            self.assertEqual(names, fields.split())
            self.assertNotIn("hidden", [getattr(made, name) for name in names])

    @extension_only
    def test_a_class_is_kept_while_it_is_looked_into(self) -> None:
        class Key(str):
            __hash__ = str.__hash__
            __eq__ = lambda *_: False

        def let_go(*_: object) -> bool:
            budget.__class__ = module.RunBudget
            kinds.clear()
            gc.collect()
            kept.append(kind() is not None)
            return False

        module, kept = load_copy("decision_bounds"), list[bool]()
        kinds: list[Any] = [type("Kind", (module.RunBudget,), {})]
        budget, kind = kinds[0](9, 9), weakref.ref(kinds[0])
        held = gc.get_referents(vars(module.RunBudget))[0]
        descriptor = held.pop("max_calls")
        held[Key("max_calls")] = None
        held["max_calls"] = descriptor
        module.RunBudget.note = None  # The class is looked into anew.
        setattr(Key, "__eq__", let_go)
        budget.max_calls = 5
        setattr(Key, "__eq__", lambda *_: False)
        self.assertEqual((budget.max_calls, kept[:1]), (5, [True]))

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
            kind: Any = type(made)
            for unset in (object(), kind.__new__(kind)):
                self.assertRaises((AttributeError, TypeError), use, unset)

    @extension_only
    def test_records_that_are_not_set_up_have_no_fields(self) -> None:
        empty = bounds._Held.__new__(bounds._Held)
        budget = bounds.RunBudget(9, 9)
        del budget.calls
        for use in (lambda: empty.take(1.0), empty.__repr__, budget.summary):
            self.assertRaises(AttributeError, use)
        self.assertTrue(is_free(budget._changed))

    def test_an_old_value_ends_when_the_new_one_stands(self) -> None:
        class Last(float):
            def __del__(self) -> None:
                budget.cost = 9.0

        budget = bounds.RunBudget(9, 9, cost=Last(1.0))
        budget.cost = 5.0
        budget.charge(Reply(cost=0.25))
        self.assertEqual(budget.cost, 9.25)

        class Once:
            def __call__(self, reply: Any) -> None:
                raise AssertionError("replaced")

            def __del__(self) -> None:
                share.settle("early")

        given: list[Any] = []
        share = bounds.Share(Once())
        share._give_back = given.append
        self.assertEqual(given, ["early"])

    def test_a_share_of_a_bound_hands_out_one_function(self) -> None:
        for bound, held, share in (
            (budget := bounds.RunBudget(9, 9), budget._held_tokens, budget.hold(2.0)),
            (spend := account(), spend._held, admit(spend, 2.0)),
        ):
            give_back = share._give_back
            self.assertIs(share._give_back, give_back)
            self.assertRaises(TypeError, give_back)
            share._give_back = None
            share.settle(None)
            self.assertEqual(held.holders, 1)
            give_back(reply=None)
            self.assertEqual(held, bounds._Held(), bound)

    def test_a_collection_may_settle_the_share_that_is_read(self) -> None:
        class Settling:
            def __del__(self) -> None:
                share.settle(None)

        self.addCleanup(gc.set_threshold, *gc.get_threshold())
        hold = bounds.RunBudget(9, 9).hold
        for share in (hold(1.0), admit(account())):
            gc.collect()
            gc.disable()
            settling: Any = Settling()
            settling.itself = settling
            del settling
            # No tuple is left over from before: the next one is made, which collects first.
            tuples = [(number,) * 3 for number in range(3000)]
            gc.set_threshold(1)
            gc.enable()
            given = share._give_back
            del tuples
            gc.collect()
            self.assertIsNone(share._give_back, given)

    def test_what_changes_under_a_call_does_no_harm(self) -> None:
        budget = bounds.RunBudget(9, 9)
        tally = weakref.ref(budget._held_tokens)
        kept: list[bool] = []

        def add(share: Any, amount: Any) -> Any:
            budget._held_tokens = None
            kept.append(tally() is not None)
            return share

        tokens = mock.MagicMock()
        tokens.__radd__ = add
        self.assertIs(type(budget.hold(tokens)), bounds.Share)
        self.assertEqual(kept, [True])

        def stop() -> bool:
            budget.should_stop = None
            return running() is not None

        running = weakref.ref(stop)
        budget.should_stop = stop
        del stop
        self.assertTrue(budget.stopping())
        spend = account()
        spend._today = lambda: setattr(spend, "_changed", None)
        entered = spend._changed
        self.assertEqual(spend.spent(), 0.0)
        self.assertTrue(is_free(entered))
        shares: list[Any] = [bounds.Share(lambda reply: shares.clear())]
        shares[0].settle(None)
