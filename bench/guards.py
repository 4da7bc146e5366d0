"""What the bound is for: 64 threads spend against a cap of $1.00, under three guards.

Two guards are what is written first without this module. One checks what was spent and adds what
the call cost when it ends; the other holds a fixed estimate of a call while it is in flight.
"""

from __future__ import annotations

import random
import statistics
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import picture, subjects

CAP_USD = 1.0
_THREADS = 64
_CALL_S = 0.003
_REQUEST_BYTES = 2000
_ESTIMATE_USD = 0.075  # What a call costs on average, without the dear ones.


class CapReached(Exception):
    """The guard admits no further call."""


class CheckThenAdd:
    """Admits a call while what was spent is below the cap, and adds what it cost when it ends."""

    def __init__(self) -> None:
        self._lock, self._spent = threading.Lock(), 0.0

    @contextmanager
    def call(self, usd: float) -> Iterator[None]:
        """Around a call that turns out to cost ``usd``; raises ``CapReached``."""
        with self._lock:
            if self._spent >= CAP_USD:
                raise CapReached
        yield
        with self._lock:
            self._spent += usd


class FixedEstimate:
    """Admits a call while what was spent and an estimate for each call in flight fit the cap."""

    def __init__(self) -> None:
        self._changed, self._spent, self._in_flight = threading.Condition(), 0.0, 0

    @contextmanager
    def call(self, usd: float) -> Iterator[None]:
        """Around a call that turns out to cost ``usd``; raises ``CapReached``."""
        with self._changed:
            while self._spent + (self._in_flight + 1) * _ESTIMATE_USD > CAP_USD:
                if self._in_flight == 0:
                    raise CapReached
                self._changed.wait()
            self._in_flight += 1
        yield
        with self._changed:
            self._in_flight -= 1
            self._spent += usd
            self._changed.notify_all()


class Bounded:
    """The module's daily cap, with a bound for each call from the replies before it."""

    def __init__(self, bounds: ModuleType, learned_usd: list[float]) -> None:
        self._bounds, self._spend = bounds, subjects.spend(bounds, CAP_USD)
        self._rates = bounds.RequestRates()
        for usd in learned_usd:
            self._learn(subjects.Reply(cost=usd))

    @contextmanager
    def call(self, usd: float) -> Iterator[None]:
        """Around a call that turns out to cost ``usd``; raises ``CapReached``."""
        try:
            share = subjects.admit(self._spend, self._bound, self._bounds.never)
        except self._bounds.DecisionBudgetExceeded:
            raise CapReached from None
        with share:
            yield
            reply = subjects.Reply(cost=usd)
            self._learn(reply)
            share.settle(reply)

    def _bound(self) -> float:
        return float(self._rates.cost(_REQUEST_BYTES, "answer"))

    def _learn(self, reply: subjects.Reply) -> None:
        self._rates.learn(_REQUEST_BYTES, "answer", reply)


@dataclass
class Pass:
    """The cost of each call of a pass, in the order in which they ended, and its length."""

    settled_usd: list[float] = field(default_factory=list)
    seconds: float = 0.0

    @property
    def over_usd(self) -> float:
        """By how much the spend passed the cap."""
        return max(0.0, sum(self.settled_usd) - CAP_USD)

    @property
    def unused_usd(self) -> float:
        """How much of the cap was left."""
        return max(0.0, CAP_USD - sum(self.settled_usd))


def usual_calls(chance: random.Random) -> float:
    """A call of $0.05 to $0.10."""
    return chance.uniform(0.05, 0.10)


def mixed_calls(chance: random.Random) -> float:
    """The same, but one in ten costs ten times as much."""
    return usual_calls(chance) * (10.0 if chance.random() < 0.1 else 1.0)


def run_pass(
    guarded: Callable[[float], AbstractContextManager[None]],
    price: Callable[[random.Random], float],
    seed: int,
) -> Pass:
    """Let all threads make calls until the guard refuses them."""
    chance, lock, done, begin = random.Random(seed), threading.Lock(), Pass(), threading.Event()

    def make_calls() -> None:
        begin.wait()
        while True:
            with lock:
                usd, seconds = price(chance), _CALL_S * chance.uniform(0.5, 1.5)
            try:
                with guarded(usd):
                    time.sleep(seconds)
                    done.settled_usd.append(usd)
            except CapReached:
                return

    threads = [threading.Thread(target=make_calls) for _ in range(_THREADS)]
    for thread in threads:
        thread.start()
    start = time.perf_counter()
    begin.set()
    for thread in threads:
        thread.join()
    done.seconds = time.perf_counter() - start
    return done


MIXES = {
    "Calls of $0.05 to $0.10": usual_calls,
    "One call in ten costs ten times as much": mixed_calls,
}


def guards(
    bounds: ModuleType, price: Callable[[random.Random], float], seed: int
) -> dict[str, Any]:
    """A new guard of each kind by its name; the last has seen 200 replies of an earlier day."""
    chance = random.Random(1000 + seed)
    return {
        "check, then add": CheckThenAdd(),
        "fixed estimate": FixedEstimate(),
        "this module, cold": Bounded(bounds, []),
        "this module, learned": Bounded(bounds, [price(chance) for _ in range(200)]),
    }


def report(build: Path, quick: bool, drawing: Path | None = None) -> str:
    """The tables of how far each guard passes the cap; draws the median ones where asked to."""
    bounds = subjects.module(build)
    bounds.logger.disabled = True
    tables, panels = [], {}
    for title, price in MIXES.items():
        passes: dict[str, list[Pass]] = {}
        for seed in range(5 if quick else 20):
            for name, guard in guards(bounds, price, seed).items():
                passes.setdefault(name, []).append(run_pass(guard.call, price, seed))
        panels[title] = {name: _median_run(runs).settled_usd for name, runs in passes.items()}
        lines = [
            [
                name,
                *_median_and_worst([each.over_usd for each in runs]),
                *_median_and_worst([each.unused_usd for each in runs]),
                f"{statistics.median(1000 * each.seconds for each in runs):.0f}",
            ]
            for name, runs in passes.items()
        ]
        tables.append(
            subjects.table(
                f"{title}: USD over the cap of $1.00 and unused, {_THREADS} threads",
                ["guard", "over: median", "worst", "unused: median", "worst", "pass: ms"],
                lines,
            )
        )
    if drawing is not None:
        drawing.write_text(picture.draw(panels, CAP_USD), encoding="utf-8")
    return "\n".join(tables)


def _median_run(runs: list[Pass]) -> Pass:
    return sorted(runs, key=lambda each: each.over_usd)[len(runs) // 2]


def _median_and_worst(values: list[float]) -> list[str]:
    return [f"{statistics.median(values):.2f}", f"{max(values):.2f}"]
