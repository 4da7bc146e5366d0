"""Names of the module that are rebound after loading, and copies of the module beside it."""

from __future__ import annotations

import gc
import importlib.util
import math
import sys
import threading
import unittest
import weakref
from functools import partial
from unittest import mock

from tests.module.support import LoggedCondition, account, admit, bounds, full_budget, load_copy


class OtherError(Exception):
    """Stands in for an error type of the module."""


rebound = partial(mock.patch.multiple, bounds)


class LookupsTest(unittest.TestCase):
    def test_a_rebound_name_is_used_at_once(self) -> None:
        full = full_budget()
        spend = account()
        spend._held.amount = 5.0
        late = {"deadline": 0.0, "clock": float}
        with rebound(DecisionStopped=OtherError, DecisionTimeout=OtherError):
            self.assertRaises(OtherError, bounds.RunBudget(9, 9, should_stop=lambda: True).reserve)
            self.assertRaises(OtherError, lambda: admit(spend, **late))
        with rebound(DecisionStopped=str):
            self.assertRaises(TypeError, bounds.RunBudget(9, 9, should_stop=lambda: True).reserve)
        with rebound(DecisionBudgetExceeded=OtherError, logger=mock.DEFAULT) as names:
            self.assertRaises(OtherError, bounds.RunBudget(0, 9).hold, 1.0)
            self.assertRaises(OtherError, admit, account(cap=0))
        names["logger"].warning.assert_called_once_with(mock.ANY, 0.0, 0)
        with rebound(_wait=mock.Mock(side_effect=OtherError)):
            self.assertRaises(OtherError, full.reserve)
            bounds._wait.assert_called_once_with(full._changed, full.stopping)
            self.assertRaises(OtherError, lambda: admit(spend, **late))
            bounds._wait.assert_called_with(spend._changed, bounds.never, **late)
        with rebound(Share=lambda give_back: ("share", callable(give_back))):
            shares = [bounds.RunBudget(9, 9).hold(1.0), admit(account())]
        self.assertEqual(shares, [("share", True)] * 2)

    def test_a_call_that_waits_sees_a_rebinding(self) -> None:
        budget = full_budget()
        budget._changed = LoggedCondition(lambda: setattr(bounds, "_POLL_S", bounds._POLL_S * 2))
        budget.should_stop = mock.Mock(side_effect=[False, False, False, True])
        with rebound(_POLL_S=1), self.assertRaises(bounds.DecisionStopped):
            budget.reserve()
        self.assertEqual(budget._changed.calls[1:3], [("wait", 1), ("wait", 2)])

    def test_defaults_are_fixed_at_load(self) -> None:
        nothing = bounds._nothing
        held = type("Held", (bounds._Held,), {})
        charges = type("Charges", (bounds._Charges,), {})
        with rebound(_nothing=None, never=None, _Held=held, _Charges=charges):
            self.assertIs(bounds.Share()._give_back, nothing)
            budget = bounds.RunBudget(9, 9)
            self.assertFalse(budget.stopping())
            self.assertIsNot(type(budget._held_tokens), held)
            self.assertIs(type(account()._held), held)
            rates = bounds.RequestRates()
            self.assertIs(type(rates._cost), charges)
            self.assertIs(type(rates._tokens), charges)
        kinds = {name: mock.Mock() for name in ("Condition", "Lock")}
        genuine = threading.Condition
        with mock.patch.multiple(threading, **kinds):
            self.assertIs(account()._changed, kinds["Condition"].return_value)
            self.assertIs(bounds.RequestRates()._lock, kinds["Lock"].return_value)
            self.assertIs(type(bounds.RunBudget(9, 9)._changed), genuine)

    def test_a_deleted_name_is_a_name_error(self) -> None:
        other = load_copy("decision_bounds")
        for name, operation in {
            "DecisionBudgetExceeded": other.RunBudget(0, 0).reserve,
            "_POLL_S": lambda: other._wait(LoggedCondition(), other.never),
            "Share": lambda: other.RunBudget(9, 9).hold(1.0),
            "_Charges": other.RequestRates,
        }.items():
            delattr(other, name)
            self.assertRaisesRegex(NameError, f"'{name}'", operation)

    def test_a_copy_that_is_never_executed_ends_without_harm(self) -> None:
        found = importlib.util.spec_from_file_location("decision_bounds", bounds.__file__)
        assert found
        kept = weakref.ref(importlib.util.module_from_spec(found))
        gc.collect()
        self.assertIsNone(kept())
        counts = []
        for _ in range(3):
            load_copy("decision_bounds")
            gc.collect()
            counts.append(sys.getrefcount(threading.Condition))
        self.assertEqual(counts[1], counts[2])

    def test_copies_of_the_module_share_nothing(self) -> None:
        for name in ("decision_bounds", "client.engines.decision_bounds", bounds.__name__):
            other = load_copy(name)
            self.assertEqual(other.logger.name, name)
            self.assertEqual(other.Share.__module__, name)
            self.assertNotEqual(other._Held(), bounds._Held())
            other._POLL_S = 7
            self.assertEqual(bounds._POLL_S, 0.1)
            budget = other.RunBudget(1, 9)
            kept = weakref.ref(other)
            del other
            gc.collect()
            # An object does without the name of its module, and the last takes the module along.
            with budget.hold(math.inf):
                self.assertTrue(budget.exhausted())
            del budget
            gc.collect()
            self.assertIsNone(kept())
