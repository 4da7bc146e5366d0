"""What the shared cap guarantees whatever fails: real processes, on real stores of both kinds."""

from __future__ import annotations

import signal
import threading
import time

from engines.decision_bounds import DecisionBudgetExceeded, DecisionUnavailable

from ..lease import DAY_S, Day, day_of, nano_usd
from .network import Network
from .on_store import AHEAD, CALL_USD, DAY, LEASE_USD, MIDNIGHT_S, NOON_S, TERM_S, OnStore, Process
from .stores import TIMEOUT_S, PostgresServer, Reply, SqliteFile


class Faults:
    """Holds the tests, which a class below runs on each store."""

    class OnAStore(OnStore):
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
            self.assertLessEqual(self.day().settled, paid + cost)
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
            # Both run by the time the first of them can use up the cap.
            for calls in (1, 1_000):
                for worker in workers:
                    worker.begin(cap_usd=2.0, calls=calls)
                self.assertEqual([worker.says() for worker in workers], ["done", "done"])
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


class SqliteFaults(Faults.OnAStore):
    def make_store(self) -> SqliteFile:
        return SqliteFile(self.folder)


class PostgresFaults(Faults.OnAStore):
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
