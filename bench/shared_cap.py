"""What a cap costs that processes share: round trips, time on a call's way, and what stays unused."""

from __future__ import annotations

import random
import tempfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import rows, subjects

_LEASES = (25, 50, 100, 200, 500, 1000)  # calls
_CALL_USD = 0.001
_CALL_S = 0.002
_HOLDERS, _THREADS = 8, 8
_REPLY = subjects.Reply(cost=_CALL_USD)


def report(build: Path, quick: bool) -> str:
    """The tables of round trips, of the cost of a call, and of the end of the cap."""
    bounds = subjects.module(build)
    with tempfile.TemporaryDirectory() as folder:
        shared = _Shared(bounds, Path(folder))
        return "\n".join((_steady(shared, quick), _calls(shared, quick), _ends(shared, quick)))


class _Shared:
    """Makes holders of one cap, each on a store of its own or all on the same."""

    def __init__(self, bounds: ModuleType, folder: Path) -> None:
        # The example takes the module that is measured: it has to be imported after it.
        from examples.shared_cap import shared_spend, sqlite_store

        self.bounds = bounds
        self._folder, self._made = folder, 0
        self._spend, self._store = shared_spend.SharedSpend, sqlite_store.SqliteStore

    def holders(self, count: int, cap_calls: float, lease_calls: float) -> list[tuple[Any, Any]]:
        """So many holders of a new cap, each with its store."""
        self._made += 1
        stores = [self._store(self._folder / f"{self._made}.sqlite3") for _ in range(count)]
        journals, lease_usd = self._folder / "journals", lease_calls * _CALL_USD
        return [
            (self._spend(cap_calls * _CALL_USD, store, journals, lease_usd=lease_usd), store)
            for store in stores
        ]


@dataclass
class _Run:
    """What the threads of a run did."""

    calls: int = 0
    seconds: float = 0.0


def _run(shared: _Shared, spends: list[Any], calls: int | None) -> _Run:
    """Make so many calls from the threads of each, or calls until they are refused."""
    run, lock = _Run(), threading.Lock()
    left = [calls] * len(spends) if calls is not None else None

    def make_calls(at: int, chance: random.Random) -> None:
        while True:
            if left is not None:
                with lock:
                    left[at] -= 1
                    if left[at] < 0:
                        return
            try:
                share = subjects.admit(spends[at], lambda: _CALL_USD, shared.bounds.never)
            except shared.bounds.DecisionBudgetExceeded:
                return
            with share:
                time.sleep(_CALL_S * chance.uniform(0.5, 1.5))
                share.settle(_REPLY)
            with lock:
                run.calls += 1

    threads = [
        threading.Thread(target=make_calls, args=(at, random.Random(f"{at} {number}")))
        for at in range(len(spends))
        for number in range(_THREADS)
    ]
    start = time.perf_counter()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    run.seconds = time.perf_counter() - start
    return run


def _steady(shared: _Shared, quick: bool) -> str:
    calls = 2_000 if quick else 10_000
    lines = []
    for lease in _LEASES:
        ((spend, store),) = shared.holders(1, 1e9, lease)
        run = _run(shared, [spend], calls)
        trips, statements = store.transactions, store.statements
        spend.close()
        a_second, to_one = run.calls / run.seconds, run.calls / trips
        to_statement = f"{run.calls / statements:.1f}"
        lines.append([lease, f"{a_second:,.0f}", trips, f"{to_one:.0f}", to_statement])
    return subjects.table(
        f"Round trips to the store (transactions) in a steady run of {calls:,} calls of"
        f" {1000 * _CALL_S:g} ms from {_THREADS} threads (goal: 50 calls to one, or more)",
        ["lease in calls", "calls a second", "round trips", "calls to one", "calls to a statement"],
        lines,
    )


def _calls(shared: _Shared, quick: bool) -> str:
    statement = next(row.statement for row in rows.ROWS if "admit" in row.statement)
    lines = []
    for lease in (1_000_000, 100_000, 10_000):
        ((spend, _),) = shared.holders(1, 1e12, lease)
        names = {**rows.objects(shared.bounds), "reply": _REPLY, "bound": lambda: _CALL_USD}
        timers = {
            "bare": rows.timer(names, statement),
            "shared": rows.timer({**names, "spend": spend}, statement),
        }
        with spend.admit(
            lambda: _CALL_USD, deadline=None, clock=time.monotonic, stopping=shared.bounds.never
        ):
            pass  # The first call waits for the lease.
        ns = rows.best_ns(timers, 10 if quick else 50)
        spend.close()
        lines.append(
            [
                f"{lease:,}",
                *(f"{each:.0f}" for each in ns.values()),
                f"{ns['shared'] / ns['bare']:.2f}",
            ]
        )
    return subjects.table(
        "Nanoseconds of admit + settle on one thread that does nothing else (goal: 1.5 times)",
        ["lease in calls", "`DailySpend`", "`SharedSpend`", "times"],
        lines,
    )


def _ends(shared: _Shared, quick: bool) -> str:
    cap = 2_000 if quick else 10_000
    lines = []
    for lease in _LEASES:
        made = shared.holders(_HOLDERS, cap, lease)
        run = _run(shared, [spend for spend, _ in made], None)
        trips = sum(store.transactions for _, store in made)
        for spend, _ in made:
            spend.close()
        unused = 100 * max(0, cap - run.calls) / cap
        lines.append(
            [lease, f"{unused:.1f} %", max(0, run.calls - cap), f"{run.calls / trips:.0f}"]
        )
    return subjects.table(
        f"{_HOLDERS} holders of {_THREADS} threads each until the cap of {cap:,} calls is reached"
        " (goal: less than 2 % unused)",
        ["lease in calls", "unused", "calls past the cap", "calls to a round trip"],
        lines,
    )
