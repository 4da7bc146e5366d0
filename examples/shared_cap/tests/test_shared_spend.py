"""What a call meets at the shared cap of one process, beside what fails."""

from __future__ import annotations

import tempfile
import threading
import time
import unittest
from collections.abc import Callable, Generator
from contextlib import contextmanager
from itertools import cycle
from pathlib import Path
from typing import Any
from unittest import mock

from engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionTimeout,
    DecisionUnavailable,
    Share,
    never,
)

from ..journal import Journal
from ..lease import Report, nano_usd
from ..shared_spend import _RETRY_S, SharedSpend, logger
from ..sqlite_store import SqliteStore
from ..store import StoreUnreachable
from .stores import FOLDER, Reply

TERM_S = 0.6


class SharedSpendTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory(dir=FOLDER)
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def spend(self, cap_usd: float, term_s: float = TERM_S) -> SharedSpend:
        store, journals = SqliteStore(self.folder / "store"), self.folder / "journals"
        made = SharedSpend(cap_usd, store, journals, lease_usd=0.1, term_s=term_s)
        self.addCleanup(made.close)
        return made

    def admit(
        self,
        spend: SharedSpend,
        bound: Callable[[], float] = lambda: 0.1,
        *,
        wait_s: float = 10.0,
        stopping: Callable[[], bool] = never,
    ) -> Share:
        deadline = time.monotonic() + wait_s
        return spend.admit(bound, deadline=deadline, clock=time.monotonic, stopping=stopping)

    def test_call_that_finds_no_room_waits_for_it(self) -> None:
        first, second = self.spend(0.1), self.spend(0.1)
        in_flight = self.admit(first)
        with self.assertRaises(DecisionTimeout):
            self.admit(second, wait_s=0.3)
        with self.assertRaises(DecisionStopped):
            self.admit(second, stopping=lambda: True)
        # The first process gives back what its call did not cost.
        threading.Timer(0.2, in_flight.settle, [None]).start()
        self.admit(second).settle(Reply(0.25))
        text = "he shared daily cap is reached: $0.2500 of $0.10 spent today (UTC)"
        for spend in (first, second):
            with self.assertLogs(logger) as logged:
                self.assertRaises(DecisionBudgetExceeded, self.admit, spend)
                with self.assertRaises(DecisionBudgetExceeded) as refused:
                    self.admit(spend)
            self.assertEqual(str(refused.exception), "t" + text)
            self.assertEqual([each.getMessage() for each in logged.records], ["T" + text])
            self.assertEqual(spend.spent(), 0.25)

    def test_lease_of_a_long_call_is_renewed_and_waited_for(self) -> None:
        spend, other = self.spend(0.1), self.spend(0.1)
        in_flight = self.admit(spend, lambda: 0.01)
        # Were it overdue, the cap would be reached.
        with self.assertRaises(DecisionTimeout):
            self.admit(other, wait_s=3 * TERM_S)
        in_flight.settle(None)

    def test_call_behind_one_in_flight_gets_what_another_process_gives_back(self) -> None:
        spend, other = self.spend(0.3, term_s=60.0), self.spend(0.3, term_s=60.0)
        elsewhere = self.admit(other)
        in_flight = self.admit(spend)
        threading.Timer(0.2, elsewhere.settle, [None]).start()
        self.admit(spend).settle(None)
        in_flight.settle(None)

    def test_what_bound_raises_arrives_and_holds_nothing(self) -> None:
        spend = self.spend(0.1)
        for error in (DecisionBudgetExceeded("another"), DecisionTimeout("another"), KeyError()):

            def fails() -> float:
                raise error

            with self.assertRaises(type(error)) as raised:
                self.admit(spend, fails)
            self.assertIs(raised.exception, error)
        self.admit(spend).settle(None)

    def test_what_is_charged_without_a_share_counts(self) -> None:
        spend, other = self.spend(1.0), self.spend(1.0)
        spend.charge(Reply(0.75))
        self.assertEqual(spend._lease.noted_usd, 0.75)
        self.assertEqual(spend.spent(), 0.75)
        spend.close()
        self.admit(other).settle(Reply(0.5))
        self.assertEqual(other.spent(), 1.25)

    def test_charge_whose_lease_ends_meanwhile_goes_to_the_next(self) -> None:
        spend = self.spend(1.0, term_s=60.0)
        following = spend._lease

        @contextmanager
        def end() -> Generator[None, None, None]:
            spend._lease = following
            yield

        spend._lease = ended = mock.Mock(following, closed=True)
        ended.spend._changed = end()
        spend.charge(Reply(0.25))
        ended.spend.charge.assert_not_called()
        self.assertEqual(spend.spent(), 0.25)

    def test_lease_that_is_over_or_has_room_is_not_waited_for(self) -> None:
        spend = self.spend(0.1, term_s=60.0)
        full = DailySpend(0.0, lambda: "2030-02-01", None)
        spend._lease.spend._cap, spend._lease.reached = 0.1, True
        over: Any = mock.Mock(spend._lease, spend=full, reached=True)
        for lease in (spend._lease, over):
            spend._wait_for_lease(lease, deadline=None, clock=time.monotonic, stopping=never)

    def test_closed_cap_refuses(self) -> None:
        spend = self.spend(0.1)
        self.admit(spend).settle(None)
        spend.close()
        self.assertIsNone(spend._store._connection)
        closed = DecisionUnavailable, "the shared daily cap is closed"
        self.assertRaisesRegex(*closed, self.admit, spend)
        self.assertRaisesRegex(*closed, spend.charge, Reply(0.1))

    def test_lease_that_is_over_reports_the_calls_that_it_admitted(self) -> None:
        spend, other = self.spend(1.0), self.spend(1.0)
        in_flight = self.admit(spend)
        over = spend._lease
        over.ended = True
        spend._wake.set()
        while spend._lease is over:
            time.sleep(0.01)
        in_flight.settle(Reply(0.25))
        spend.close()
        self.admit(other).settle(Reply(0.5))
        self.assertEqual(other.spent(), 0.75)

    def test_store_that_fails_is_named_and_asked_with_pauses(self) -> None:
        spend, began_s = self.spend(0.1), time.monotonic()
        down = cycle((StoreUnreachable("no route"), KeyError("no route")))
        with mock.patch.object(spend._store, "renew", side_effect=down) as renew:
            with self.assertLogs(logger) as logged:
                with self.assertRaisesRegex(DecisionUnavailable, "no route"):
                    self.admit(spend, wait_s=0.3)
            self.assertEqual(len(logged.records), 1)
            for _ in range(100):
                spend._wake.set()
                time.sleep(0.002)
            spend._sent_s = began_s - 60.0
            no_answer = spend._explained(DecisionTimeout())
            asked, took_s = renew.call_count, time.monotonic() - began_s
        self.assertLessEqual(asked, took_s / _RETRY_S + 1)
        self.assertIn("does not answer", str(no_answer))
        while spend._failure:  # The next answer ends it.
            time.sleep(0.01)

    def test_lease_of_an_ended_process_is_concluded_for_good(self) -> None:
        journals, store = self.folder / "journals", SqliteStore(self.folder / "store")
        self.addCleanup(store.close)
        ended = Journal.made(journals, "ended")
        ended.spent_usd = 0.25
        ended.close()
        terms: dict[str, Any] = dict(cap=nano_usd(1.0), term_s=60.0)
        lease = store.renew(Report("ended", 1, settled=0, need=nano_usd(0.5)), **terms).lease
        fake: Any = mock.Mock(_journals=journals, _store=store, _cap=nano_usd(1.0), _term_s=60.0)
        SharedSpend._conclude(fake, lease)
        self.assertEqual(list(journals.iterdir()), [])
        late = store.renew(Report("ended", 9, settled=0, need=nano_usd(0.5)), **terms)
        self.assertEqual((late.lease.needed, late.lease.settled), (nano_usd(0.25),) * 2)
