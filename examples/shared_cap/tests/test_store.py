"""What a store keeps of the reports that it takes in, on a clock that the test sets."""

from __future__ import annotations

import sqlite3
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from contextlib import closing
from pathlib import Path
from unittest import mock

from examples.shared_cap.lease import DAY_S, Answer, Day, Report, day_of
from examples.shared_cap.sqlite_store import SqliteStore
from examples.shared_cap.store import StoreUnreachable

from .stores import FOLDER

CAP, TERM_S = 100, 30.0
NOON_S = 1000.5 * DAY_S


class StoreTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory(dir=FOLDER)
        self.addCleanup(folder.cleanup)
        self.path = Path(folder.name) / "store"
        self.store = self.opened()

    def opened(self) -> SqliteStore:
        store = SqliteStore(self.path)
        self.addCleanup(store.close)
        self.at(NOON_S, store)
        return store

    def at(self, now_s: float, store: SqliteStore | None = None) -> None:
        """Set the clock of a store, or of the first one."""
        setattr(store or self.store, "_NOW", repr(now_s))

    def renew(self, name: str, sequence: int, settled: int, need: int) -> Answer:
        report = Report(name, sequence, settled, need)
        return self.store.renew(report, cap=CAP, term_s=TERM_S)

    def test_last_report_of_each_lease_counts(self) -> None:
        self.renew("one", 1, settled=0, need=10)
        self.at(NOON_S + 20.0)
        answer = self.renew("one", 2, settled=4, need=12)
        self.assertEqual(answer.lease.expires_s, NOON_S + 20.0 + TERM_S)
        self.assertEqual(answer.day_left_s, DAY_S / 2 - 20.0)
        self.renew("other", 1, settled=5, need=5)
        self.renew("other", 1, settled=50, need=50)  # overtaken
        self.assertEqual(self.opened().day(answer.today), Day(answer.today, 17, 9))
        self.at(NOON_S + 20.0 + TERM_S)
        self.assertEqual(self.renew("third", 1, 0, 1).overdue, ())
        self.at(NOON_S + 21.0 + TERM_S)
        # What the other has settled covers its need.
        self.assertEqual(self.renew("third", 2, 0, 1).overdue, (answer.lease,))

    def test_lease_counts_on_its_own_day(self) -> None:
        before = self.renew("one", 1, settled=4, need=10).today
        self.at(NOON_S + DAY_S)
        answer = self.renew("one", 2, settled=6, need=10)
        self.assertEqual((answer.lease.day, answer.day), (before, Day(before, 10, 6)))
        self.assertEqual(answer.today, day_of(NOON_S + DAY_S))
        self.assertEqual(self.store.day(answer.today), Day(answer.today))

    def test_clock_goes_on_and_never_back(self) -> None:
        self.assertEqual(self.store.today(), day_of(NOON_S))
        self.at(NOON_S + DAY_S)
        self.assertEqual(self.store.today(), day_of(NOON_S + DAY_S))
        self.at(NOON_S)
        self.assertEqual(self.store.today(), day_of(NOON_S + DAY_S))
        own = SqliteStore(self.path.with_name("own"))
        with closing(own):
            lease = own.renew(Report("one", 1, 0, 1), cap=CAP, term_s=0.0).lease
            self.assertAlmostEqual(lease.expires_s, time.time(), delta=60.0)

    def test_transaction_that_fails_is_undone_and_keeps_nobody_out(self) -> None:
        self.renew("one", 1, settled=1, need=1)
        for error, raised in (
            (KeyboardInterrupt(), KeyboardInterrupt),
            (sqlite3.OperationalError("disk I/O error"), StoreUnreachable),
        ):
            with mock.patch.object(self.store, "_day", side_effect=error):
                with self.assertRaises(raised):
                    self.renew("one", 2, settled=9, need=9)
            self.assertIsNone(self.store._connection)
            self.assertEqual(self.opened().day(day_of(NOON_S)).settled, 1)

    def test_tables_are_made_once_for_a_connection(self) -> None:
        self.renew("one", 1, 0, 1)
        first = self.store.statements
        self.renew("one", 2, 0, 1)
        self.assertLess(self.store.statements - first, first)
        self.store.close()
        self.assertIsNone(self.store._connection)

    def test_second_transaction_waits_for_the_first(self) -> None:
        self.renew("one", 1, 0, 1)

        def today(timeout_s: float) -> str:
            with closing(SqliteStore(self.path, timeout_s=timeout_s)) as second:
                return second.today()

        with ThreadPoolExecutor(1) as beside:
            with self.store._transaction():
                self.assertRaisesRegex(StoreUnreachable, "locked", today, 0.01)
                asked = beside.submit(today, 10.0)
                time.sleep(0.2)
            self.assertTrue(asked.result())
