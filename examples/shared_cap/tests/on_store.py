"""A test on a store of its own, with holders of the cap in this process and in others."""

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

from engines.decision_bounds import DecisionBudgetExceeded, Share, never

from ..lease import DAY_S, Day, day_of, nano_usd
from ..shared_spend import SharedSpend
from ..store import StoreUnreachable
from .stores import FOLDER, Reply, opened

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

    def __init__(self, test: OnStore, name: str = "worker", ahead_s: float = 0.0) -> None:
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
