"""Locks and conditions of any make: entered and left as a `with` statement does it."""

from __future__ import annotations

import math
import sys
import threading
import unittest
from fractions import Fraction
from subprocess import PIPE, Popen
from typing import Any
from unittest import mock

from tests.module.support import PATIENCE_S, Background, Boom, LoggedCondition, Reply
from tests.module.support import account, admit, bounds, full_budget, is_free, load_copy

# Looking for the waiters of a condition replaces its lock, which nothing else refers to.
REPLACED_LOCK = """
import threading
from engines import decision_bounds as bounds
class Key(str):
    __hash__ = str.__hash__
    def __eq__(self, other):
        vars(changed)["_lock"] = threading.RLock()
        return str.__eq__(self, other)
changed = threading.Condition()
changed.__dict__ = {Key(n) if n == "_waiters" else n: v for n, v in vars(changed).items()}
budget = bounds.RunBudget(9, 9, _changed=changed)
changed._lock = threading.RLock()
for name in ("acquire", "release", "_is_owned"):
    setattr(changed, name, getattr(threading.RLock(), name))
budget.summary()
"""

# Looking whether the class of a condition was patched deletes the condition.
DELETED_CONDITION = """
import contextlib, gc, threading
from engines import decision_bounds as bounds
class Key(str):
    __hash__ = str.__hash__
    def __eq__(self, other):
        del budget._changed
        return False
budget = bounds.RunBudget(9, 9)
gc.get_referents(vars(threading.Condition))[0][Key("_waiters")] = None
threading.Condition.note = None
with contextlib.suppress(AttributeError):
    budget.release()
"""

ENTERED = ["enter", "exit"]
NOTIFIED = ["enter", "notify_all", "exit"]

asks_who_owns = unittest.skipUnless(
    sys.version_info < (3, 13), "looking for `_is_owned` at each use would cost too much"
)


class ConditionsTest(unittest.TestCase):
    def test_operations_ask_a_condition_for_no_more_than_they_need(self) -> None:
        changed = LoggedCondition()
        budget = bounds.RunBudget(9, 9, _changed=changed)
        spend = account()
        self.assertIs(type(spend._changed), threading.Condition)
        share = admit(spend)
        spend._changed = changed
        entered = [budget.reserve, budget.exhausted, budget.summary, spend.spent]
        entered += [lambda: budget.charge(Reply(cached=True)), lambda: admit(spend)]
        notified = [budget.release, lambda: budget.charge(Reply()), lambda: spend.charge(Reply())]
        for operations, asked in ((entered, ENTERED), ([*notified, share.__exit__], NOTIFIED)):
            for operation in operations:
                operation()
                self.assertEqual(changed.calls, asked)
                del changed.calls[:]

    def test_the_error_that_leaves_is_handed_to_the_condition(self) -> None:
        refusing = bounds.RunBudget(0, 9, _changed=LoggedCondition())
        with self.assertRaises(bounds.DecisionBudgetExceeded) as caught:
            refusing.reserve()
        left = ("exit", bounds.DecisionBudgetExceeded, caught.exception)
        self.assertEqual(refusing._changed.calls, ["enter", left])
        spend = account(today=mock.Mock(side_effect=Boom))
        spend._changed = LoggedCondition()
        self.assertRaises(Boom, spend.spent)
        self.assertIsNotNone(spend._changed.traceback)

        class Failing(LoggedCondition):
            def __enter__(self) -> None:
                super().__enter__()
                Failing.__exit__ = None  # type: ignore[assignment]

            def __exit__(self, *error: Any) -> bool:
                super().__exit__(*error)
                raise Boom

        refusing._changed = Failing()
        self.assertRaises(Boom, refusing.summary)
        self.assertEqual(refusing._changed.calls, ENTERED)
        refusing._changed = LoggedCondition(swallows=True)
        self.assertIsNone(refusing.reserve())
        # The protocol is looked up on the type, so what the object itself has does not count.
        event: Any = threading.Event()
        event.__enter__ = event.__exit__ = mock.Mock()
        refusing._changed = event
        with self.assertRaisesRegex((AttributeError, TypeError), "Event' object|__enter__"):
            refusing.summary()

    def test_a_wait_sleeps_to_the_deadline_and_no_longer_than_a_poll(self) -> None:
        changed = LoggedCondition()
        for left, slept in ((0.03125, 0.03125), (5, 0.1), (math.inf, 0.1), (math.nan, 0.1)):
            bounds._wait(changed, bounds.never, deadline=left, clock=lambda: 0.0)
            self.assertEqual(changed.calls.pop(), ("wait", slept))
        with self.assertRaisesRegex(bounds.DecisionTimeout, "^the decision call ran out of its "):
            bounds._wait(changed, bounds.never, deadline=2, clock=lambda: 2.0)
        with self.assertRaises(bounds.DecisionTimeout):
            bounds._wait(changed, bounds.never, deadline=Fraction(2), clock=lambda: 2)
        with self.assertRaisesRegex(bounds.DecisionStopped, "^the pass was asked to stop$"):
            bounds._wait(changed, lambda: True, deadline=0.0, clock=None)

    def test_patched_conditions_are_honoured(self) -> None:
        for name in ("__enter__", "__exit__", "notify_all", "notify", "wait"):
            called: list[Any] = []
            genuine = getattr(threading.Condition, name)

            def patched(self: Any, *args: Any) -> Any:
                called.append(self)
                return genuine(self, *args)

            budget = bounds.RunBudget(9, 9)
            budget.reserve(9.0)
            budget.should_stop = mock.Mock(side_effect=[False, False, True])
            with mock.patch.object(threading.Condition, name, patched):
                if name == "wait":
                    self.assertRaises(bounds.DecisionStopped, budget.reserve)
                else:
                    budget.release(9.0)
            self.assertEqual(called, [budget._changed])
        budget = full_budget()
        budget._changed.wait = lambda timeout: budget.release(9.0)
        budget._changed.notify_all = mock.Mock()
        budget.reserve(3.0)
        budget._changed.notify_all.assert_called_once_with()

    def test_what_a_condition_is_made_of_may_be_replaced(self) -> None:
        budget = bounds.RunBudget(9, 9)
        changed = budget._changed
        read = mock.Mock(side_effect=lambda: vars(changed)["_lock"])
        with mock.patch.object(
            threading.Condition, "_lock", property(lambda _: read()), create=True
        ):
            budget.summary()
        self.assertEqual(read.call_count, 2)

    @asks_who_owns
    def test_whether_the_lock_is_owned_is_asked_of_another(self) -> None:
        lock = mock.MagicMock()
        bounds.RunBudget(9, 9, _changed=threading.Condition(lock)).release()
        lock._is_owned.assert_called_once_with()
        budget = bounds.RunBudget(9, 9)
        changed = budget._changed
        answers_no: tuple[Any, ...] = (mock.Mock(return_value=False), [].copy)
        for unowned in answers_no:
            changed._is_owned = unowned
            self.assertRaises(RuntimeError, budget.release)
        self.assertTrue(is_free(changed))

    @unittest.skipUnless(sys.version_info < (3, 11), "later versions tag each state only once")
    def test_a_patched_class_is_seen_when_version_tags_come_back(self) -> None:
        # Of a copy, as a class that was patched has no short ways any more.
        module = load_copy("decision_bounds")
        budget = module.RunBudget(10**6, 10**6)
        made, init = [], module.Share.__init__
        kinds: tuple[Any, ...] = (threading.Condition, module.Share)
        notify_all = mock.Mock()
        with mock.patch.object(threading.Condition, "notify_all", notify_all), mock.patch.object(
            module.Share, "__init__", lambda *args: made.append(init(*args))
        ):
            sys._clear_type_cache()
            for number in range(20_000):
                for kind in kinds:
                    kind.number = number
                    kind.number  # The look-up gives the class its next tag.
                budget.hold(1.0).settle(None)
        for kind in kinds:
            del kind.number
        self.assertEqual([len(made), notify_all.call_count], [number + 1] * 2)

    def test_types_that_were_replaced_before_loading_are_honoured(self) -> None:
        entered: list[Any] = []

        class Condition(threading.Condition):
            def __enter__(self) -> bool:
                entered.append(self)
                return super().__enter__()

        class RLock(type(threading.RLock())):  # type: ignore[misc]
            def __exit__(self, *error: object) -> None:
                entered.append(self)
                self.release()

        class Entering(type(threading.RLock())):  # type: ignore[misc]
            def __enter__(self) -> bool:
                entered.append(self)
                return bool(self.acquire())

        for name, kind in (("Condition", Condition), ("RLock", RLock), ("RLock", Entering)):
            with mock.patch.object(threading, name, kind):
                budget = load_copy("decision_bounds").RunBudget(9, 9)
            budget.summary()
            self.assertIs(type(entered.pop()), kind)
            self.assertEqual(entered, [])
        genuine = threading.Condition

        # Whether a lock is taken is asked where threads run side by side.
        class Asked(type(threading.RLock())):  # type: ignore[misc]
            def locked(self) -> bool:
                return False

        for name, replacement in (("Condition", lambda: genuine()), ("RLock", Asked)):
            with mock.patch.object(threading, name, replacement):
                load_copy("decision_bounds").RunBudget(9, 9).reserve()

    def test_a_derived_condition_and_foreign_waiters_are_asked(self) -> None:
        asked: list[str] = []

        class Condition(threading.Condition):
            def __enter__(self) -> bool:
                asked.append("enter")
                return super().__enter__()

        class Waiters(list[Any]):
            def __len__(self) -> int:
                asked.append("waiters")
                return 0

        bounds.RunBudget(9, 9, _changed=Condition()).summary()
        budget = bounds.RunBudget(9, 9)
        budget._changed._waiters = Waiters()
        budget.release()
        self.assertEqual(set(asked), {"enter", "waiters"})

    def test_locks_of_the_caller_are_used(self) -> None:
        lock = mock.MagicMock()
        bounds.RunBudget(9, 9, _changed=threading.Condition(lock)).summary()
        rates = bounds.RequestRates()
        self.assertIs(type(rates._lock), type(threading.Lock()))
        rates._lock = lock
        rates.tokens(1)
        self.assertEqual(lock.__enter__.call_count, 2)
        self.assertEqual(lock.__exit__.call_count, 2)

        calls: list[str] = []

        class Classwide:
            __enter__ = classmethod(lambda cls: calls.append("enter"))
            __exit__ = classmethod(lambda cls, *error: calls.append("exit"))

        rates._lock = Classwide()
        rates.tokens(1)
        self.assertEqual(calls, ENTERED)

    def test_a_thread_that_holds_the_lock_keeps_the_others_out(self) -> None:
        budget = bounds.RunBudget(9, 9)
        rates = bounds.RequestRates()
        with budget._changed, rates._lock:
            reserving = Background(budget.reserve)
            asking = Background(rates.tokens, 1)
            budget.reserve()
            reserving.join(0.1)
            self.assertEqual(budget.in_flight, 1)
            self.assertTrue(reserving.is_alive())
            self.assertTrue(asking.is_alive())
        self.assertIsNone(reserving.result())
        self.assertEqual(asking.result(), math.inf)

    def test_a_stop_function_may_use_the_budget_that_waits(self) -> None:
        budget = bounds.RunBudget(9, 9)
        answers = [bounds.never, budget.hold(math.inf).__exit__]
        # The first question comes on entry, the second from the wait and under the lock.
        budget.should_stop = lambda: answers.pop(0)() if answers else budget.exhausted()
        with budget.hold(1.0):
            self.assertEqual(budget.in_flight, 1)
            self.assertEqual(budget._held_tokens.amount, 1.0)

    def test_what_is_replaced_while_it_is_looked_for_is_not_used(self) -> None:
        for program in (REPLACED_LOCK, DELETED_CONDITION):
            with Popen([sys.executable, "-c", program], stderr=PIPE) as run:
                self.assertEqual(run.communicate(timeout=PATIENCE_S)[1], b"")
                self.assertEqual(run.returncode, 0)
