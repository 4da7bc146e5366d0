"""The spend of one lease without its store: what it reports, and what each answer makes of it."""

from __future__ import annotations

import tempfile
import time
import unittest
from pathlib import Path
from typing import Any
from unittest import mock

from engines.decision_bounds import DecisionBudgetExceeded, DecisionStopped, Share

from ..journal import Journal
from ..lease import Answer, Day, Lease, Report, nano_usd
from ..leased_spend import LeasedSpend
from .stores import FOLDER, Reply

SIZE = nano_usd(0.16)
DAY = "2024-05-01"
DAY_LEFT_S = 1000.0


class LeasedSpendTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory(dir=FOLDER)
        self.addCleanup(folder.cleanup)
        self.journals = Path(folder.name)
        self.asks = mock.Mock()
        self.lease = LeasedSpend(self.journals, SIZE, self.asks)
        self.now_s = 0.0
        clock = mock.patch.object(time, "monotonic", lambda: self.now_s)
        clock.start()
        self.addCleanup(clock.stop)

    def answer(
        self,
        report: Report | None = None,
        granted: int | None = None,
        today: str = DAY,
        others: int = 0,
        cap: int = nano_usd(1.0),
    ) -> Report:
        """Grant what the last report needs, or so much; the others have settled so much."""
        report = report or self.lease.report()
        granted = report.need if granted is None else granted
        row = Lease(report.name, DAY, report.need, granted, report.settled, report.sequence)
        day = Day(DAY, granted + others, report.settled + others)
        answer = Answer(row, day, today, DAY_LEFT_S, ())
        self.lease.take(answer, cap=cap, sent_s=self.now_s, term_s=30.0)
        return report

    def admit(self, usd: float) -> Share:
        return self.lease.spend.admit(
            lambda: usd, deadline=None, clock=lambda: 0.0, stopping=lambda: True
        )

    def woken(self) -> Any:
        return mock.patch.object(self.lease.spend._changed, "notify_all")

    def ask(self) -> None:
        with self.lease.spend._changed:
            self.lease.ask_locked()

    def test_more_is_asked_for_once_and_reported_until_it_is_granted(self) -> None:
        self.assertRaises(DecisionBudgetExceeded, self.admit, 0.01)
        self.assertFalse(self.lease.due())
        self.ask()
        self.ask()
        self.asks.assert_called_once_with()
        self.assertTrue(self.lease.due())
        report = self.lease.report()
        self.assertEqual((report.sequence, report.settled, report.need), (1, 0, SIZE))
        self.ask()  # An answer is to come.
        self.asks.assert_called_once_with()
        self.assertTrue(self.lease.due())
        with self.woken() as notify_all:
            self.answer(report)
        notify_all.assert_called_once_with()
        share = self.admit(0.01)
        self.assertFalse(self.lease.due())
        self.lease.note()
        self.asks.assert_called_once_with()
        more = self.admit(0.08)
        self.assertTrue(self.lease.due())
        self.lease.note()
        self.assertEqual(self.asks.call_count, 2)
        self.assertEqual(self.answer().need, nano_usd(0.09) + SIZE)
        share.settle(Reply(0.01))
        self.assertTrue(self.lease.due())
        self.assertEqual(self.answer().settled, nano_usd(0.01))
        self.assertFalse(self.lease.due())
        self.now_s = 10.0
        self.assertTrue(self.lease.due())
        more.settle(None)

    def test_an_idle_lease_is_given_back_and_a_busy_one_is_not(self) -> None:
        self.ask()
        self.answer()
        share = self.admit(0.01)
        self.answer()
        self.assertEqual(self.lease.report().need, SIZE)
        self.answer()
        share.settle(Reply(0.02))
        # Calls were made since the last report, and may go on.
        self.assertEqual(self.answer().need, SIZE)
        self.assertTrue(self.lease.due())
        idle = self.lease.report()
        self.assertEqual((idle.settled, idle.need), (nano_usd(0.02), nano_usd(0.02)))
        self.assertRaises(DecisionBudgetExceeded, self.admit, 0.01)
        self.answer(idle)
        self.assertFalse(self.lease.due())
        self.now_s = DAY_LEFT_S
        self.assertTrue(self.lease.due())

    def test_what_was_granted_is_what_calls_have(self) -> None:
        self.ask()
        with self.assertNoLogs():
            self.answer(granted=nano_usd(0.05))
            self.assertTrue(self.lease.short)
            held = self.admit(0.05)
            self.assertRaises(DecisionStopped, self.admit, 0.01)
        self.assertEqual(self.answer(granted=nano_usd(0.5), others=nano_usd(0.25)).settled, 0)
        self.assertFalse(self.lease.short)
        held.settle(Reply(0.03125))
        self.assertEqual(self.lease.day_usd(), 0.28125)
        self.answer(others=nano_usd(0.25))
        self.assertEqual(self.lease.day_usd(), 0.28125)
        self.assertFalse(self.lease.reached)
        self.answer(others=nano_usd(1.0))
        self.assertTrue(self.lease.reached)

    def test_the_journal_says_what_calls_may_spend(self) -> None:
        noted = mock.PropertyMock()
        with mock.patch.object(Journal, "spent_usd", noted):
            self.ask()
            self.answer(granted=nano_usd(0.05))
            self.lease.note()
            noted.assert_called_with(0.01)
            held = self.admit(0.045)
            self.lease.note()
            noted.assert_called_with(0.05)
            with self.assertNoLogs():
                self.lease.spend.charge(Reply(0.25))
                self.assertRaises(DecisionBudgetExceeded, self.admit, 0.01)
            self.lease.note()
            noted.assert_called_with(0.295)
            held.settle(None)
            self.answer()
            noted.assert_called_with(0.25)
            self.lease.note()
            self.lease.abandon()
            noted.assert_called_with(0.25)
        self.assertTrue(self.lease.closed)
        self.assertIsNotNone(Journal.abandoned(self.journals, self.lease.name))

    def test_a_lease_ends_with_its_day_and_is_closed_when_all_is_known(self) -> None:
        self.assertFalse(self.lease.close())
        self.ask()
        self.answer()
        self.assertEqual(self.lease.until_midnight_s(), DAY_LEFT_S)
        held = self.admit(0.01)
        self.assertFalse(self.lease.close())
        self.now_s = DAY_LEFT_S
        self.assertEqual(self.answer(today="2024-05-02").need, nano_usd(0.01))
        self.answer(granted=SIZE)
        self.assertTrue(self.lease.ended)
        self.assertRaises(DecisionBudgetExceeded, self.admit, 0.01)
        self.answer(granted=0)
        self.assertFalse(self.lease.close())
        held.settle(Reply(0.005))
        self.assertFalse(self.lease.close())
        report = self.lease.report()
        self.assertFalse(self.lease.close())
        self.answer(report, granted=report.need + 1)
        self.assertFalse(self.lease.close())
        self.answer()
        self.assertTrue(self.lease.close())
        self.assertTrue(self.lease.closed)
        self.assertEqual(list(self.journals.iterdir()), [])

    def test_a_lease_that_is_ended_sends_its_waiters_on(self) -> None:
        self.ask()
        self.answer()
        held = self.admit(0.01)
        with self.woken() as notify_all:
            self.lease.end()
        notify_all.assert_called_once_with()
        self.assertRaises(DecisionBudgetExceeded, self.admit, 0.01)
        self.assertEqual(self.answer().need, nano_usd(0.01))
        held.settle(None)
