"""Processes that end or fork while calls wait, and several interpreters and loads in one process."""

from __future__ import annotations

import os
import unittest
from concurrent.futures import ThreadPoolExecutor

from tests.faults.support import LONG, ProcessTest
from tests.module.test_threads import EXIT_WITH_FAILURES, EXIT_WITH_WAITERS

# Every child of a process with calls in flight and waiting ends its own calls and makes new ones.
FORK = """
import math, os, signal, threading, time
from engines import decision_bounds as bounds
budget = bounds.RunBudget(9, 9)
spend = bounds.DailySpend(9.0, lambda: "2024-05-01", None)
waits = dict(deadline=None, clock=None, stopping=bounds.never)
shares = [budget.hold(math.inf), spend.admit(lambda: math.inf, **waits)]
for call in [budget.reserve, lambda: spend.admit(lambda: 1.0, **waits)] * 2:
    threading.Thread(target=call, daemon=True).start()
for bound in (budget, spend):
    while len(bound._changed._waiters) < 2:
        time.sleep(0.001)
for _ in range({forks}):
    with budget._changed, spend._changed:  # No other thread has a lock that the child would lack.
        child = os.fork()
    if child == 0:
        signal.alarm(30)
        for share in shares:
            share.settle(None)
        with budget.hold(3.0), spend.admit(lambda: 3.0, **waits):
            assert (budget.in_flight, spend._held.holders) == (1, 1)
        assert (budget.in_flight, spend._held) == (0, bounds._Held())
        os._exit(0)
    assert os.waitpid(child, 0)[1] == 0
assert (budget.in_flight, spend._held.holders) == (1, 1)
"""

# What one copy of the module made goes on when others are loaded, and is as it was.
LOADS = """
import gc, importlib, sys
from engines import decision_bounds as first
budget = first.RunBudget(9, 9)
share = budget.hold(3.0)
assert importlib.reload(first) is first
for _ in range({loads}):
    del sys.modules["engines.decision_bounds"]
    other = importlib.import_module("engines.decision_bounds")
    with other.RunBudget(9, 9).hold(1.0) as held:
        assert type(held) is other.Share is not first.Share
    del held, other
    gc.collect()
share.settle(None)
assert budget == first.RunBudget(9, 9)
"""


class ProcessesTest(ProcessTest):
    def test_exits_while_threads_wait(self) -> None:
        programs = [EXIT_WITH_WAITERS, EXIT_WITH_FAILURES] * (100 if LONG else 2)
        with ThreadPoolExecutor(os.cpu_count()) as pool:
            list(pool.map(lambda program: self.ends_well("-c", program), programs))

    @unittest.skipUnless(hasattr(os, "fork"), "this system has no fork")
    def test_forks_while_calls_are_in_flight_and_wait(self) -> None:
        self.ends_well(
            "-W", "ignore::DeprecationWarning", "-c", FORK.format(forks=200 if LONG else 10)
        )

    def test_loads_beside_a_load(self) -> None:
        self.ends_well("-c", LOADS.format(loads=200 if LONG else 10))

    def test_interpreters_beside_the_main_one(self) -> None:
        self.ends_well("-m", "tests.faults.interpreters", "50" if LONG else "2")
