"""Real threads: rushes, waiters, interrupts and exits."""

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

from tests.module.support import PATIENCE_S, Background, Boom, LoggedReply, Reply, account, admit
from tests.module.support import bounds, extension_only, full_budget, is_free, wait_until

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


class Interrupts:
    """Signals to the main thread, the first ``number`` of which raise ``Boom`` there."""

    def __init__(self, test: unittest.TestCase, number: int) -> None:
        self.raised: list[Boom] = []
        self._number = number
        test.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, self._raise))

    def _raise(self, *_: object) -> None:
        if len(self.raised) < self._number:
            self.raised.append(Boom())
            raise self.raised[-1]

    def send(self) -> None:
        """Send until all have been raised: the last moment before a thread sleeps loses a signal."""

        def all_raised() -> bool:
            if len(self.raised) == self._number:
                return True
            signal.pthread_kill(threading.main_thread().ident or 0, signal.SIGUSR1)
            return False

        wait_until(all_raised)


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
        budget, interrupts = full_budget(), Interrupts(self, 1)

        def interrupt() -> None:
            wait_until(lambda: bool(budget._changed._waiters))
            interrupts.send()

        with mock.patch.object(bounds, "_POLL_S", 10 * PATIENCE_S):
            sending = Background(interrupt)
            self.assertRaises(Boom, budget.hold, 1.0)
        sending.result()
        self.assertTrue(is_free(budget._changed))
        self.assertEqual(budget.in_flight, 0)

    @extension_only
    def test_a_settle_that_is_interrupted_gives_back_before_it_raises(self) -> None:
        def settle(share: Any) -> None:
            share.settle(reply)

        def is_settling() -> bool:
            frame = sys._current_frames()[main]
            return frame.f_code is settle.__code__ and frame.f_lasti == calls[0]

        def keep_out() -> None:
            with budget._changed:
                entered.set()
                wait_until(is_settling)
                interrupts.send()

        main, entered, calls = threading.get_ident(), threading.Event(), list[int]()
        budget, interrupts, unread = bounds.RunBudget(9, 9), Interrupts(self, 2), LookupError()
        share, reply = budget.hold(1.0), LoggedReply(Reply(), "cost", unread)
        settle(bounds.Share(lambda _: calls.append(sys._getframe(1).f_lasti)))
        keeping = Background(keep_out)
        entered.wait()
        with self.assertRaises(Boom) as caught:
            settle(share)
        keeping.result()
        self.assertIs(caught.exception, interrupts.raised[0])
        self.assertIs(caught.exception.__context__, unread)
        self.assertEqual((budget.in_flight, is_free(budget._changed)), (0, True))

    def test_the_interpreter_ends_while_threads_wait(self) -> None:
        programs = [EXIT_WITH_WAITERS, EXIT_WITH_FAILURES] * 6
        for ended in [Popen([sys.executable, "-c", each], stderr=PIPE) for each in programs]:
            # Twelve interpreters start at once, and under a sanitizer each of them is slow.
            self.assertEqual(ended.communicate(timeout=10 * PATIENCE_S)[1], b"")
            self.assertEqual(ended.returncode, 0)
