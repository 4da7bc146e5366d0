"""Objects of the module's classes as the host's plain objects: attributes, ends, and what refers to them."""

from __future__ import annotations

import gc
import inspect
import sys
import sysconfig
import unittest
import weakref
from collections.abc import Callable
from typing import Any
from unittest import mock

from tests.module.support import LoggedCondition, Reply, account, admit, bounds, extension_only
from tests.module.support import load_copy

MAKERS: dict[str, Callable[[Any], Any]] = {
    "Share": lambda module: module.Share(),
    "_Held": lambda module: module._Held(),
    "_Charges": lambda module: module._Charges(),
    "RequestRates": lambda module: module.RequestRates(),
    "RunBudget": lambda module: module.RunBudget(9, 9),
    "DailySpend": lambda module: module.DailySpend(9.0, str, None),
}


class Value(float):
    """A number with attributes and weak references."""

    share: Any


class Kinds(set[str]):
    """The kinds of a caller's own, which notes those that are added."""

    added = ""

    def add(self, kind: str) -> None:
        self.added += kind
        super().add(kind)


class ObjectsTest(unittest.TestCase):
    def test_a_field_is_read_set_and_deleted_as_an_attribute(self) -> None:
        for made, name in ((bounds.Share(), "_give_back"), (account(), "_cost")):
            value = Value(1.0)
            kept = weakref.ref(value)
            setattr(made, name, value)
            del value
            self.assertIs(getattr(made, name), kept())
            delattr(made, name)
            self.assertIsNone(kept())
            for use in (getattr, delattr):
                with self.assertRaisesRegex(AttributeError, f"^('.*' .* ')?{name}'?$"):
                    use(made, name)
        with self.assertRaisesRegex(AttributeError, "^'DailySpend' object has no attribute"):
            made._cost

    def test_what_an_object_refers_to_ends_with_it(self) -> None:
        for name, make in MAKERS.items():
            made, note = make(bounds), Value()
            ended: list[Any] = []
            references = [weakref.ref(each, ended.append) for each in (made, note)]
            made.note = note
            del made, note
            self.assertEqual([each() for each in references], [None, None])
            self.assertEqual(len(ended), 2, name)

    def test_an_object_that_its_class_revives_goes_on(self) -> None:
        # Of a copy, as a class that was patched has no short ways any more.
        share = load_copy("decision_bounds").Share
        kinds: tuple[Any, ...] = (share, type("Derived", (share,), {}))
        for kind in kinds:
            ended: list[Any] = []
            kind.__del__ = lambda self: ended.append(self)
            kind(None)
            self.assertEqual(len(ended), 1)
            self.assertIsNone(ended[0]._give_back)
            ended.pop()
            self.assertEqual(ended, [])

    def test_objects_whose_ends_drop_each_other_end_without_a_crash(self) -> None:
        share: Any = load_copy("decision_bounds").Share
        shares = [None, *(share(None) for _ in range(100_000))]
        share.__del__ = staticmethod(shares.pop)
        shares.pop()
        self.assertEqual(shares, [])

    def test_the_collector_sees_each_way_that_leads_back(self) -> None:
        for name, make in MAKERS.items():
            module = load_copy("decision_bounds")
            kept = [weakref.ref(module), weakref.ref(module.Share)]
            setattr(module, "made", make(module))
            del module
            gc.collect()
            self.assertEqual([each() for each in kept], [None] * 2, name)
        # A share leads to its bound, and to the amount that it holds.
        for bound, hold in (
            (bounds.RunBudget(9, 9), bounds.RunBudget.hold),
            (account(), admit),
        ):
            amount = Value(1.0)
            amount.share = hold(bound, amount)
            bound._held = bound._held_tokens = None
            kept = [weakref.ref(amount)]
            del amount, bound
            gc.collect()
            self.assertIsNone(kept[0]())

    @extension_only
    def test_an_operation_ends_with_all_that_it_has_and_keeps_its_module_until_then(self) -> None:
        module = load_copy("decision_bounds")
        operation = vars(module).pop("_wait")
        operation.note = Value(1.0)
        own = [operation, operation.note]
        own += filter(inspect.isfunction, gc.get_referents(operation))
        ended: list[Any] = []
        kept = [weakref.ref(each, ended.append) for each in own]
        count = sys.getrefcount(type(operation))
        del operation, own
        gc.collect()  # Without a global lock, nothing else ends an operation.
        self.assertEqual(len(ended), len(kept))
        if not sysconfig.get_config_var("Py_GIL_DISABLED"):  # Otherwise each thread counts its own.
            self.assertEqual(sys.getrefcount(type(module.never)), count - 1)
        last, kept_module = module._nothing, weakref.ref(module)
        del module
        gc.collect()
        self.assertIsNotNone(kept_module(), last)

    @extension_only
    def test_the_collector_sees_the_attributes_of_an_operation(self) -> None:
        never = load_copy("decision_bounds").never
        never.note = never
        kept = weakref.ref(never)
        del never
        gc.collect()
        self.assertIsNone(kept())

    def test_what_a_bound_owns_may_be_of_another_type_and_is_asked_by_its_methods(self) -> None:
        call: Any = mock.call
        tally, charges, kinds = mock.Mock(), mock.Mock(), Kinds()
        tally.admits.side_effect = [[], "yes"]
        changed = LoggedCondition()
        budget = bounds.RunBudget(9, 9, _held_tokens=tally, _changed=changed)
        budget.hold(1.0).settle(None)
        admits = call.admits(1.0, 0, 9)
        asked = [admits, admits, call.take(1.0), call.give_back(1.0)]
        self.assertEqual(tally.mock_calls, asked)
        self.assertEqual(changed.calls[1], ("wait", 0.1))
        rates = bounds.RequestRates()
        rates._cost, rates._features = charges, kinds
        rates.learn(1, "rank", Reply(cost=0.5))
        self.assertIs(rates.cost(2, "rank"), charges.bound.return_value)
        self.assertEqual(charges.mock_calls, [call.learn(1, 0.5), call.bound(2)])
        self.assertEqual(kinds.added, "rank")

    def test_a_subclass_keeps_its_own_attributes(self) -> None:
        class Tally(bounds._Held):  # type: ignore[misc]
            note = "of the class"
            amount = property(lambda self: 5.0, lambda self, value: given.append(value))

        given: list[Any] = []
        tally = Tally(1, 2.0)
        tally.note = "of the object"
        self.assertEqual((tally.amount, given, Tally.note), (5.0, [2.0], "of the class"))
