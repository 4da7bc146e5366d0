"""Errors that strike waits and running operations from outside, as long as is asked for."""

from __future__ import annotations

from tests.faults.support import LONG, ProcessTest


class InterruptionsTest(ProcessTest):
    def strike(self, how: str) -> None:
        told = self.ends_well("-m", "tests.faults.interruptions", how, "30" if LONG else "1")
        self.assertGreater(int(told.split()[0]), 10)

    def test_errors_raised_in_a_thread_from_outside(self) -> None:
        self.strike("thread")

    def test_errors_raised_by_signal_handlers(self) -> None:
        self.strike("signal")
