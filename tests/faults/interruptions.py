"""Errors that strike at any time, into waits and running operations of several threads.

    PYTHONPATH=build/release python -m tests.faults.interruptions thread|signal SECONDS

``thread`` raises in two threads from outside, ``signal`` in the main thread from a handler. Prints
how often. The exit status is 1 where something is held at the end that no share gives back.
"""

from __future__ import annotations

import ctypes
import math
import signal
import sys
import threading
import time
from collections.abc import Callable
from functools import partial
from typing import Any

from tests.module.support import account, bounds

PERIOD_S = 0.0003
# What plain Python's condition leads to where an error strikes between the end of its sleep and the
# step that takes the lock back.
NOT_TAKEN_BACK = "cannot release un-acquired lock"


class Strike(BaseException):
    """The error that strikes."""


class Calls:
    """The calls of one thread: of one pass and one day, where most wait for another thread's.

    The shares go straight into a list, with no step of the interpreter in between at which a strike
    could lose one.
    """

    def __init__(self, budget: Any, spend: Any) -> None:
        waits: Any = {"deadline": None, "clock": None, "stopping": lambda: False}
        admit = partial(spend.admit, **waits)
        self._courses: list[tuple[Any, tuple[Any, ...]]] = [
            (budget.hold, (1.0, 2.0, 9.0)),
            (budget.hold, (math.inf,)),
            (admit, (float, lambda: 2.0, lambda: 9.0)),
            (admit, (lambda: math.inf,)),
        ]
        self._shares: list[Any] = []
        # Holds one thing while the calls can be struck; who takes it out strikes, or ends that. It is no
        # lock, which a strike between its taking and the `with` block would leave taken.
        self._chance: list[bool] = []
        self._is_settling = False
        self.strikes = 0

    def settle(self) -> None:
        """Settle all; a share is dropped only after that, so what a strike cuts short is repeated."""
        self._is_settling = True
        for share in self._shares:
            share.settle(None)
        del self._shares[:]
        self._is_settling = False

    def _call(self) -> None:
        for admit, arguments in self._courses:
            self._shares.extend(map(admit, arguments))
            self.settle()

    def run(self) -> None:
        """Make the calls once, to their end or to where a strike ends them."""
        try:
            self._chance.append(True)
            self.settle()
            self._call()
            while not self._take_chance():
                time.sleep(0)  # The strike is on its way.
        except Strike:
            self.strikes += 1
        except RuntimeError as error:
            if str(error) != NOT_TAKEN_BACK:
                raise

    def _take_chance(self) -> bool:
        try:
            return self._chance.pop()
        except IndexError:
            return False

    def strike(self, how: Callable[[], object]) -> None:
        """Strike once, if the calls are being made."""
        if self._take_chance():
            how()

    def strike_from_handler(self, *_signal: object) -> None:
        """Strike the thread that this runs in, unless it settles.

        A signal that comes while a settle waits for the lock is a test of its own.
        """
        if not self._is_settling and self._take_chance():
            raise Strike


def run_for(seconds: float, calls: Calls) -> None:
    """Make the calls again and again, and leave nothing that another thread would wait for."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        calls.run()
    calls.settle()


def strike_threads(seconds: float, both: list[Calls]) -> None:
    """Strike two threads from this one."""
    threads = [threading.Thread(target=run_for, args=(seconds, calls)) for calls in both]
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        time.sleep(PERIOD_S)
        for thread, calls in zip(threads, both):
            target = ctypes.c_ulong(thread.ident or 0), ctypes.py_object(Strike)
            calls.strike(partial(ctypes.pythonapi.PyThreadState_SetAsyncExc, *target))


def strike_main(seconds: float, both: list[Calls]) -> None:
    """Strike this thread from a handler, while another makes its calls undisturbed."""
    signal.signal(signal.SIGALRM, both[0].strike_from_handler)
    other = threading.Thread(target=run_for, args=(seconds, both[1]))
    other.start()
    signal.setitimer(signal.ITIMER_REAL, PERIOD_S, PERIOD_S)
    run_for(seconds, both[0])
    signal.setitimer(signal.ITIMER_REAL, 0)
    other.join()


def main(how: str, seconds: str) -> int:
    """Strike, and look at what is left."""
    budget, spend = bounds.RunBudget(10**9, 9, should_stop=lambda: False), account()
    both = [Calls(budget, spend), Calls(budget, spend)]
    {"thread": strike_threads, "signal": strike_main}[how](float(seconds), both)
    print(sum(calls.strikes for calls in both), "strikes")
    held = budget.in_flight, budget._held_tokens, spend._held
    taken = budget._changed._is_owned(), spend._changed._is_owned()
    if held != (0, bounds._Held(), bounds._Held()) or any(taken):
        print("left:", *held, *taken)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
