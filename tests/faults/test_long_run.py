"""Many calls of every kind through many threads: none is lost, and nothing is left."""

from __future__ import annotations

from tests.faults.support import LONG, ProcessTest


class LongRunTest(ProcessTest):
    def test_no_call_is_lost(self) -> None:
        self.ends_well("-m", "tests.faults.long_run", "1000000" if LONG else "20000")
