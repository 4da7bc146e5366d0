"""Errors that strike waits and running operations from outside, as long as is asked for."""

from __future__ import annotations

from tests.faults.support import LONG, ProcessTest

# A signal comes while a settle waits for the lock, which another thread has for half a second. One
# that came before has left the share as it was.
SETTLE = """
import signal, threading
from engines import decision_bounds as bounds
class Strike(BaseException):
    pass
def strike(*_):
    if trying:
        trying.clear()
        raise Strike
def keep_lock():
    with budget._changed:
        taken.set()
        threading.Event().wait(0.5)
budget = bounds.RunBudget(9, 9)
share = budget.hold(9.0)
trying, taken = [], threading.Event()
keeping = threading.Thread(target=keep_lock)
keeping.start()
taken.wait()
signal.signal(signal.SIGALRM, strike)
signal.setitimer(signal.ITIMER_REAL, 0.1, 0.1)
try:
    trying.append(share)
    share.settle(None)
except Strike:
    pass
signal.setitimer(signal.ITIMER_REAL, 0)
keeping.join()
share.settle(None)
assert budget == bounds.RunBudget(9, 9), budget
"""


class InterruptionsTest(ProcessTest):
    def strike(self, how: str) -> None:
        told = self.ends_well("-m", "tests.faults.interruptions", how, "30" if LONG else "1")
        self.assertGreater(int(told.split()[0]), 10)

    def test_errors_raised_in_a_thread_from_outside(self) -> None:
        self.strike("thread")

    def test_errors_raised_by_signal_handlers(self) -> None:
        self.strike("signal")

    def test_a_signal_while_a_settle_waits_for_the_lock(self) -> None:
        self.ends_well("-c", SETTLE)
