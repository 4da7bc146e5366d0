"""What a call costs in guards alone: both bounds of the module, beside two published guards.

Run in the environment of ``requirements.txt`` as ``python -m bench.published.guards BUILD SLICES``;
prints the microseconds a call of each guard, with one thread and with many, as JSON.
"""

from __future__ import annotations

import importlib
import json
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import subjects

_THREADS = (1, 64)
_CALLS = 12_800  # In each slice, by all threads together.
_REPLY = subjects.Reply()
_ROOM = 10**15


def _bounded(bounds: ModuleType) -> Callable[[], object]:
    """Hold a share of a pass and of a day, and settle both with the reply."""
    budget, spend = subjects.budget(bounds), subjects.spend(bounds)

    def call() -> None:
        with budget.hold(700.0) as tokens, subjects.admit(spend, _usd, bounds.never) as usd:
            tokens.settle(_REPLY)
            usd.settle(_REPLY)

    return call


def _counted_after() -> Callable[[], object]:
    """Ask whether an estimate still fits, and count what the reply cost."""
    budget: Any = importlib.import_module("agentbudget").AgentBudget(
        float(_ROOM), max_repeated_calls=_ROOM
    )
    session = budget.session().__enter__()

    def call() -> None:
        session.would_exceed(_REPLY.cost)
        session.track(_REPLY, _REPLY.cost)

    return call


def _counted_before() -> Callable[[], object]:
    """Count an estimate, in millionths of a dollar, in the window of a day."""
    limits: Any = importlib.import_module("limits")
    limiter = limits.strategies.FixedWindowRateLimiter(limits.storage.MemoryStorage())
    day = limits.RateLimitItemPerDay(_ROOM)

    def call() -> None:
        limiter.hit(day, "usd", cost=50_000)

    return call


def _usd() -> float:
    return _REPLY.cost


def _slice_us(call: Callable[[], object], threads: int) -> float:
    """Microseconds a call where ``threads`` make so many together."""
    begin = threading.Barrier(threads + 1)

    def make_calls() -> None:
        begin.wait()
        for _ in range(_CALLS // threads):
            call()

    workers = [threading.Thread(target=make_calls) for _ in range(threads)]
    for worker in workers:
        worker.start()
    begin.wait()
    start = time.perf_counter()
    for worker in workers:
        worker.join()
    return 1e6 * (time.perf_counter() - start) / _CALLS


def main(build: str, slices: str) -> None:
    """Time the guards in alternation, and print the best slice of each."""
    guards = {
        "this module: both bounds": _bounded(subjects.module(Path(build))),
        "checks an estimate, counts after the reply": _counted_after(),
        "counts an estimate before the call": _counted_before(),
    }
    best: dict[str, dict[int, float]] = {name: {} for name in guards}
    for threads in _THREADS:
        for _ in range(int(slices)):
            for name, call in guards.items():
                us = _slice_us(call, threads)
                best[name][threads] = min(us, best[name].get(threads, us))
    print(json.dumps(best))


if __name__ == "__main__":
    main(*sys.argv[1:])
