"""What the shared cap guarantees whatever fails: real processes, on real stores of both kinds."""

from __future__ import annotations

import json
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from collections.abc import Callable
from pathlib import Path
from typing import Any

from engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionUnavailable,
    Share,
    never,
)

from ..lease import DAY_S, Day, day_of, nano_usd
from ..shared_spend import SharedSpend
from ..store import StoreUnreachable
from .network import Network
from .stores import FOLDER, TIMEOUT_S, PostgresServer, Reply, SqliteFile, opened

ROOT = Path(__file__).parents[3]
NOON_S = 20_000.5 * DAY_S  # on the store's clock, when a test begins
MIDNIGHT_S = NOON_S + DAY_S / 2
DAY = day_of(NOON_S)
TRIES = 400  # of 0.05 s each
CALL_USD = 0.01
LEASE_USD = 0.32
AHEAD = nano_usd(LEASE_USD / 16)  # what the journal says ahead of the calls
TERM_S = 1.0


class Process:
    """A worker, and what its calls were billed."""

    def __init__(self, test: Faults.OnStore, name: str = "worker", ahead_s: float = 0.0) -> None:
        self._billed = test.folder / f"{name}.billed"
        self._job = {
            "store": test.store.where,
            "journals": str(test.folder / "journals"),
            "billed": str(self._billed),
            "cap_usd": 10.0,
            "lease_usd": LEASE_USD,
            "term_s": TERM_S,
            "dearest_usd": CALL_USD,
            "seed": name,
            "threads": 4,
            "calls": 1_000,
            "call_s": 0.02,
        }
        self.child = subprocess.Popen(
            [sys.executable, "-m", f"{__package__}.worker", str(ahead_s)],
            cwd=ROOT,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        test.addCleanup(self.kill)

    def begin(self, **job: object) -> None:
        """Give it a job, which replaces the last one's settings."""
        self._job.update(job)
        assert self.child.stdin
        self.child.stdin.write(json.dumps(self._job) + "\n")
        self.child.stdin.flush()

    def says(self) -> str:
        """Its next line."""
        assert self.child.stdout
        return self.child.stdout.readline().strip()

    def kill(self) -> None:
        """Kill it, if it runs, and close what it spoke through."""
        assert self.child.stdin and self.child.stdout
        self.child.kill()
        self.child.wait()
        self.child.stdout.close()
        self.child.stdin.close()

    def billed(self) -> tuple[int, int]:
        """What its calls cost, and what those hold that were never billed, nanodollars."""
        cost = held = 0
        text = self._billed.read_text() if self._billed.exists() else ""
        for line in text.splitlines():
            kind, usd = line.split()
            amount = nano_usd(float(usd))
            held += amount if kind == "holds" else -nano_usd(CALL_USD)
            cost += amount if kind == "costs" else 0
        return cost, held


class Faults:
    """Holds the tests, which a class below runs on each store."""

    class OnStore(unittest.TestCase):
        store: Any

        def setUp(self) -> None:
            folder = tempfile.TemporaryDirectory(dir=FOLDER)
            self.addCleanup(folder.cleanup)
            self.folder = Path(folder.name)
            self.store = self.make_store()
            self.store.run("CREATE TABLE shift (offset_s DOUBLE PRECISION)")
            self.store.run("INSERT INTO shift VALUES (0)")
            self.set_clock(NOON_S)

        def make_store(self) -> Any:
            raise NotImplementedError

        def set_clock(self, now_s: float) -> None:
            self.store.run(f"UPDATE shift SET offset_s = {now_s - time.time()}")

        def spend(self, cap_usd: float = 10.0, **options: Any) -> SharedSpend:
            """A holder in this process; the folder of its journals is that of the workers."""
            where = options.pop("where", self.store.where)
            journals = self.folder / options.pop("journals", "journals")
            made = SharedSpend(
                cap_usd,
                opened(where),
                journals,
                **{"lease_usd": LEASE_USD, "term_s": TERM_S, **options},
            )
            self.addCleanup(made.close)
            return made

        def admit(self, spend: SharedSpend, wait_s: float = 20.0) -> Share:
            return spend.admit(
                lambda: CALL_USD,
                deadline=time.monotonic() + wait_s,
                clock=time.monotonic,
                stopping=never,
            )

        def call(self, spend: SharedSpend, wait_s: float = 20.0) -> int:
            """One call, and what it cost in nanodollars."""
            with self.admit(spend, wait_s) as share:
                share.settle(Reply(CALL_USD))
            return nano_usd(CALL_USD)

        def day(self, day: str = DAY) -> Day:
            store = opened(self.store.where)
            try:
                return store.day(day)
            finally:
                store.close()

        def today(self) -> str:
            store = opened(self.store.where)
            try:
                return store.today()
            finally:
                store.close()

        def stop(self, worker: Process) -> None:
            """Stop it between two transactions: in one, it would keep a file to itself."""
            while True:
                worker.child.send_signal(signal.SIGSTOP)
                try:
                    self.day()
                    return
                except StoreUnreachable:
                    worker.child.send_signal(signal.SIGCONT)
                    time.sleep(0.05)

        def until(self, true: Callable[[], bool]) -> None:
            for _ in range(TRIES):
                if true():
                    return
                time.sleep(0.05)
            self.fail("it did not come to that")

        def test_killed_process_gives_back_all_but_what_it_spent(self) -> None:
            worker = Process(self)
            worker.begin()
            self.until(lambda: worker.billed()[0] > 40 * nano_usd(CALL_USD))
            worker.kill()
            cost, held = worker.billed()
            elsewhere = self.spend(journals="of another machine")
            paid = self.call(elsewhere)
            time.sleep(1.5 * TERM_S)
            paid += self.call(elsewhere)
            elsewhere.close()
            # Without its journal, all that it was granted may have been spent.
            self.assertGreaterEqual(self.day().counted, paid + cost + held)
            self.assertLess(self.day().settled, paid + cost)
            survivor = self.spend()
            paid += self.call(survivor)
            survivor.close()
            day = self.day()
            self.assertEqual(day.counted, day.settled)
            self.assertGreaterEqual(day.settled, paid + cost)
            self.assertLessEqual(day.settled, paid + cost + held + AHEAD)

        def test_killed_process_that_holds_nothing_leaves_nothing_behind(self) -> None:
            worker = Process(self)
            worker.begin(calls=5, lull_s=3.0, stays=True)
            self.assertEqual(worker.says(), "idle")
            worker.kill()
            cost, held = worker.billed()
            self.assertEqual((cost, held), (20 * nano_usd(CALL_USD), 0))
            self.assertEqual(self.day(), Day(DAY, cost, cost))

        def test_process_stopped_for_longer_than_its_lease_goes_on_within_it(self) -> None:
            worker = Process(self)
            worker.begin(calls=60, call_s=0.03)
            self.until(lambda: worker.billed()[0] > 40 * nano_usd(CALL_USD))
            self.stop(worker)
            survivor = self.spend(cap_usd=1.0)
            paid = 0
            # Its lease counts in full: nobody can know what a process that is silent has spent.
            with self.assertRaises(DecisionBudgetExceeded):
                while True:
                    paid += self.call(survivor)
            cost, _ = worker.billed()
            self.assertLessEqual(paid + cost, nano_usd(1.0))
            worker.child.send_signal(signal.SIGCONT)
            self.assertEqual(worker.says(), "done")
            survivor.close()
            cost, held = worker.billed()
            self.assertEqual((cost, held), (240 * nano_usd(CALL_USD), 0))
            self.assertEqual(self.day(), Day(DAY, paid + cost, paid + cost))

        def test_store_stopped_and_started(self) -> None:
            spend, paid, end = self.spend(), 0, time.monotonic() + 20
            paid += self.call(spend)
            self.store.stop()
            with self.assertRaises(DecisionUnavailable), self.assertLogs(level="WARNING"):
                while time.monotonic() < end:
                    paid += self.call(spend, wait_s=2.0)
            self.assertGreaterEqual(paid, nano_usd(LEASE_USD) * 3 // 4)
            self.assertLessEqual(paid, nano_usd(LEASE_USD) * 2)
            resumed: list[int] = []
            waiting = threading.Thread(target=lambda: resumed.append(self.call(spend)))
            waiting.start()
            time.sleep(0.5)
            self.store.start()
            waiting.join()
            self.assertTrue(resumed)
            paid += sum(resumed)
            spend.close()
            self.assertEqual(self.day(), Day(DAY, paid, paid))

        def test_store_that_is_gone_when_a_process_ends(self) -> None:
            spend = self.spend()
            paid = sum(self.call(spend) for _ in range(3))
            in_flight = self.admit(spend)
            self.store.stop()
            with self.assertLogs(level="WARNING"):
                spend.close(timeout_s=0.5)
            in_flight.settle(Reply(CALL_USD))
            self.store.start()
            with self.assertRaises(DecisionUnavailable):
                self.call(spend)
            with self.assertRaises(DecisionUnavailable):
                spend.charge(Reply(CALL_USD))
            time.sleep(1.5 * TERM_S)
            survivor = self.spend()
            paid += self.call(survivor) + nano_usd(CALL_USD)
            survivor.close()
            self.assertEqual(self.day(), Day(DAY, paid, paid))

        def test_clocks_of_processes_differ_by_minutes(self) -> None:
            workers = [Process(self, "late", -200.0), Process(self, "early", 300.0)]
            for worker in workers:
                worker.begin(cap_usd=2.0, call_s=0.004)
            for worker in workers:
                self.assertEqual(worker.says(), "done")
            costs = [worker.billed()[0] for worker in workers]
            self.assertGreater(min(costs), 0)
            day = self.day()
            self.assertEqual((day.counted, day.settled), (sum(costs), sum(costs)))
            self.assertGreaterEqual(day.settled, nano_usd(2.0))
            self.assertLessEqual(day.settled, nano_usd(2.0 + 2 * CALL_USD))

        def test_midnight_with_calls_in_flight(self) -> None:
            self.set_clock(MIDNIGHT_S - 4.0)
            spends = [self.spend(cap_usd=0.5) for _ in range(2)]
            before = [self.admit(spend) for spend in spends for _ in range(8)]
            waiting = [self.call_until_refused(spend) for spend in spends]
            self.until(lambda: self.today() != DAY)
            for share in before:
                share.settle(Reply(CALL_USD))
            for thread in waiting:
                thread.join()
            for spend in spends:
                spend.close()
            first, second = self.day(), self.day(day_of(MIDNIGHT_S))
            self.assertEqual(first.counted, first.settled)
            self.assertEqual(second.counted, second.settled)
            self.assertGreaterEqual(first.settled, 16 * nano_usd(CALL_USD))
            for day in (first, second):
                self.assertLessEqual(day.settled, nano_usd(0.5 + 2 * CALL_USD))
            self.assertGreaterEqual(second.settled, nano_usd(0.5))

        def test_midnight_while_the_store_is_gone(self) -> None:
            self.set_clock(MIDNIGHT_S - 4.0)
            spend = self.spend()
            paid = self.call(spend)
            self.store.stop()
            time.sleep(4.5 + 2 * TIMEOUT_S)
            # Most of the lease is left, but it is of yesterday.
            with self.assertRaises(DecisionUnavailable):
                self.call(spend, wait_s=2.0)
            self.store.start()
            self.assertEqual(self.call(spend), paid)
            spend.close()
            self.assertEqual(self.day(), Day(DAY, paid, paid))
            next_day = day_of(MIDNIGHT_S)
            self.assertEqual(self.day(next_day), Day(next_day, paid, paid))

        def call_until_refused(self, spend: SharedSpend) -> threading.Thread:
            """Calls one after the other, until they are refused after midnight."""

            def make_calls() -> None:
                while True:
                    try:
                        self.call(spend)
                    except DecisionBudgetExceeded:
                        if self.today() != DAY:
                            return
                    time.sleep(0.01)

            thread = threading.Thread(target=make_calls)
            thread.start()
            return thread

        def test_many_processes_stop_at_the_cap(self) -> None:
            workers = [Process(self, f"worker {number}") for number in range(8)]
            before = 0
            for seed in range(20):
                now_s = NOON_S + seed * DAY_S
                self.set_clock(now_s)
                for worker in workers:
                    worker.begin(
                        cap_usd=1.5,
                        lease_usd=0.1,
                        term_s=30.0,
                        threads=16,
                        call_s=0.002,
                        least=0.2,
                        seed=seed,
                    )
                self.assertEqual([worker.says() for worker in workers], ["done"] * 8)
                total = sum(worker.billed()[0] for worker in workers)
                day, paid, before = self.day(day_of(now_s)), total - before, total
                # Each lease rounds what was settled to the nearest nanodollar.
                self.assertAlmostEqual(day.settled, paid, delta=2_000)
                self.assertEqual(day.counted, day.settled)
                self.assertGreaterEqual(day.settled, nano_usd(1.5))
                self.assertLess(day.settled, nano_usd(1.5 + 8 * CALL_USD))


class SqliteFaults(Faults.OnStore):
    def make_store(self) -> SqliteFile:
        return SqliteFile(self.folder)


class PostgresFaults(Faults.OnStore):
    server: PostgresServer

    @classmethod
    def setUpClass(cls) -> None:
        cls.server = PostgresServer()
        cls.addClassCleanup(cls.server.close)

    def make_store(self) -> PostgresServer:
        self.server.run("DROP TABLE IF EXISTS shift, clock, days, leases")
        return self.server

    def test_process_cut_off_for_longer_than_its_lease(self) -> None:
        network = Network(self.server.socket)
        self.addCleanup(network.close)
        where = self.server.where.replace(str(self.server.socket.parent), str(network.folder))
        cut_off, other = self.spend(cap_usd=1.0, where=where), self.spend(cap_usd=1.0)
        paid = self.call(cut_off)
        network.cut()
        with self.assertRaises(DecisionUnavailable), self.assertLogs(level="WARNING"):
            while True:
                paid += self.call(cut_off, wait_s=3 * TERM_S)
        self.assertGreaterEqual(paid, nano_usd(LEASE_USD))
        with self.assertRaises(DecisionBudgetExceeded):
            while True:
                paid += self.call(other)
        self.assertGreaterEqual(paid, nano_usd(1.0) - nano_usd(CALL_USD))
        network.mend()
        with self.assertRaises(DecisionBudgetExceeded):
            while True:
                paid += self.call(cut_off)
        for spend in (cut_off, other):
            spend.close()
        self.assertEqual(self.day(), Day(DAY, paid, paid))
        self.assertLess(paid, nano_usd(1.0 + 2 * CALL_USD))
