"""Locks and conditions of any make, and real threads: rushes, waiters, interrupts and exits."""

from __future__ import annotations

import math
import signal
import sys
import threading
import time
import unittest
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from subprocess import PIPE, Popen
from typing import Any
from unittest import mock

from tests.module.support import PATIENCE_S, Background, LoggedCondition, Reply
from tests.module.support import account, admit, bounds, full_budget, is_free, load_copy, wait_until

EXIT_WITH_WAITERS = """
import math, threading, time
from functools import partial
from engines import decision_bounds as bounds
bounds._POLL_S = 0.001
budget, spend = bounds.RunBudget(9, 9), bounds.DailySpend(9.0, lambda: "2024-05-01", None)
admit = partial(spend.admit, lambda: math.inf, deadline=9e9, clock=float, stopping=bounds.never)
shares = [budget.hold(math.inf), admit()]
for call in [budget.reserve, admit] * 3:
    threading.Thread(target=call, daemon=True).start()
time.sleep(0.05)
"""

# A ledger that fails each day, whose warning is slow to be logged: most of the time is spent there.
EXIT_WITH_FAILURES = """
import itertools, logging, threading, time
from engines import decision_bounds as bounds
class Slow(logging.Handler):
    def emit(self, record):
        time.sleep(0.0005)
bounds.logger.addHandler(Slow())
bounds.logger.propagate = False
def spend_for_ever():
    days = map(str, itertools.count())
    spend = bounds.DailySpend(1.0, lambda: next(days), lambda day: 1 / 0)
    while True:
        spend.spent()
for _ in range(3):
    threading.Thread(target=spend_for_ever, daemon=True).start()
time.sleep(0.05)
"""

ENTERED = ["enter", "exit"]
NOTIFIED = ["enter", "notify_all", "exit"]

asks_who_owns = unittest.skipUnless(
    sys.version_info < (3, 13), "looking for `_is_owned` at each use would cost too much"
)


def rush(work: Callable[[], Any], threads: int = 64) -> None:
    """Run ``work`` on all threads at once, with the interpreter switching often between them."""
    start = threading.Barrier(threads)

    def started_together() -> None:
        start.wait()
        work()

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    try:
        for call in [Background(started_together) for _ in range(threads)]:
            call.result()
    finally:
        sys.setswitchinterval(interval)


@contextmanager
def asleep(bound: Any, call: Callable[[], Any]) -> Iterator[list[Background]]:
    """Start calls that wait for ``bound``, with no poll to wake them, and go on once all sleep."""
    with mock.patch.object(bounds, "_POLL_S", 10 * PATIENCE_S):
        calls = [Background(call) for _ in range(4)]
        wait_until(lambda: len(bound._changed._waiters) == len(calls))
        yield calls


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
        refusing._changed = LoggedCondition(swallows=True)
        self.assertIsNone(refusing.reserve())
        # The protocol is looked up on the type, so what the object itself has does not count.
        event: Any = threading.Event()
        event.__enter__ = event.__exit__ = mock.Mock()
        refusing._changed = event
        self.assertRaises((AttributeError, TypeError), refusing.summary)

    def test_a_wait_sleeps_to_the_deadline_and_no_longer_than_a_poll(self) -> None:
        changed = LoggedCondition()
        for left, slept in ((0.03125, 0.03125), (5, 0.1), (math.inf, 0.1), (math.nan, 0.1)):
            bounds._wait(changed, bounds.never, deadline=left, clock=lambda: 0.0)
            self.assertEqual(changed.calls.pop(), ("wait", slept))
        with self.assertRaisesRegex(bounds.DecisionTimeout, "^the decision call ran out of its "):
            bounds._wait(changed, bounds.never, deadline=2, clock=lambda: 2.0)
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
        changed._is_owned = mock.Mock(return_value=False)
        self.assertRaises(RuntimeError, budget.release)
        self.assertTrue(is_free(changed))

    @unittest.skipUnless(sys.version_info < (3, 11), "later versions tag each state only once")
    def test_a_patched_class_is_seen_when_version_tags_come_back(self) -> None:
        budget = bounds.RunBudget(10**6, 10**6)
        made, init = [], bounds.Share.__init__
        kinds: tuple[Any, ...] = (threading.Condition, bounds.Share)
        notify_all = mock.Mock()
        with mock.patch.object(threading.Condition, "notify_all", notify_all), mock.patch.object(
            bounds.Share, "__init__", lambda *args: made.append(init(*args))
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

        for kind in (Condition, RLock):
            with mock.patch.object(threading, kind.__name__, kind):
                budget = load_copy("decision_bounds").RunBudget(9, 9)
            budget.summary()
            self.assertIs(type(entered.pop()), kind)
            self.assertEqual(entered, [])

    def test_locks_of_the_caller_are_used(self) -> None:
        lock = mock.MagicMock()
        bounds.RunBudget(9, 9, _changed=threading.Condition(lock)).summary()
        rates = bounds.RequestRates()
        self.assertIs(type(rates._lock), type(threading.Lock()))
        rates._lock = lock
        rates.tokens(1)
        self.assertEqual(lock.__enter__.call_count, 2)
        self.assertEqual(lock.__exit__.call_count, 2)

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


class ThreadsTest(unittest.TestCase):
    def test_a_rush_stays_within_the_bounds(self) -> None:
        spend = account(cap=100.0)
        budget = bounds.RunBudget(10**6, 2000)
        used: list[float] = []  # What was settled and held of the cap after each admission, USD.

        def pay() -> None:
            with self.assertRaisesRegex(bounds.DecisionBudgetExceeded, "cost cap"):
                for tokens in [math.inf, *[10.0] * 1000]:
                    with budget.hold(tokens) as slot, admit(spend) as share:
                        used.append(spend._cost + spend._held.amount)
                        # One share of three ends without a reply.
                        if len(used) % 3:
                            slot.settle(Reply(input_tokens=10))
                            share.settle(Reply(cost=1.0))

        with self.assertLogs(bounds.logger, "WARNING") as logs:
            rush(pay)
        self.assertEqual(len(logs.records), 1)
        self.assertEqual(spend.spent(), 100.0)
        self.assertLessEqual(max(used), 100.0)
        self.assertEqual(spend._held, bounds._Held())
        self.assertEqual(budget, bounds.RunBudget(10**6, 2000, 100, 1000))
        self.assertEqual(budget._held_tokens, bounds._Held())

    def test_a_share_is_given_back_once_when_threads_race(self) -> None:
        given: list[Any] = []
        shares = [bounds.Share(given.append) for _ in range(500)]
        rush(lambda: [share.settle(None) for share in shares], threads=8)
        self.assertEqual(len(given), len(shares))

    def test_whatever_makes_room_wakes_every_waiter(self) -> None:
        for end in (None, Reply(input_tokens=1)):
            budget = bounds.RunBudget(9, 9)
            spend = account()
            for bound, share, call in (
                (budget, budget.hold(math.inf), budget.reserve),
                (spend, admit(spend, math.inf), lambda: admit(spend)),
            ):
                with asleep(bound, call) as calls:
                    share.settle(end)
                    for waiter in calls:
                        waiter.result()
        spend._held.amount = 9.0
        with asleep(spend, lambda: admit(spend)) as calls, self.assertLogs(bounds.logger):
            spend.charge(Reply(cost=5.0))
            for waiter in calls:
                self.assertRaises(bounds.DecisionBudgetExceeded, waiter.result)

    def test_an_interrupt_ends_a_wait_at_once(self) -> None:
        budget = full_budget()
        main = threading.get_ident()

        def interrupt() -> None:
            wait_until(lambda: bool(budget._changed._waiters))
            time.sleep(0.05)
            signal.pthread_kill(main, signal.SIGINT)

        before = signal.signal(signal.SIGINT, signal.default_int_handler)
        self.addCleanup(signal.signal, signal.SIGINT, before)
        with mock.patch.object(bounds, "_POLL_S", 10 * PATIENCE_S):
            Background(interrupt)
            self.assertRaises(KeyboardInterrupt, budget.hold, 1.0)
        self.assertTrue(is_free(budget._changed))
        self.assertEqual(budget.in_flight, 0)

    def test_the_interpreter_ends_while_threads_wait(self) -> None:
        programs = [EXIT_WITH_WAITERS, EXIT_WITH_FAILURES] * 6
        for ended in [Popen([sys.executable, "-c", each], stderr=PIPE) for each in programs]:
            self.assertEqual(ended.communicate(timeout=PATIENCE_S)[1], b"")
            self.assertEqual(ended.returncode, 0)
