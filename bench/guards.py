"""What the bound is for: 64 threads ask an endpoint that fails and keeps a bill, under each guard.

The guards without this module are what is written first. All get the same requests, and the
endpoint's bill says what each let through.
"""

from __future__ import annotations

import math
import random
import statistics
import threading
import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from queue import Empty, SimpleQueue
from types import ModuleType
from typing import Any

from examples.batch_pass.endpoint import MAX_OUTPUT_TOKENS, Endpoint
from examples.batch_pass.prices import dearest
from examples.batch_pass.remote import NotBilled, NotRead, Remote, Reply

from bench import picture, subjects

CAP_USD = 0.6
_THREADS = 64
_REQUESTS = 900  # What all of them cost is nearly twice the cap.
_TIMEOUT_S = 1.0
_KINDS = ("moderate", "refund", "route", "summarise", "triage")


class Refused(Exception):
    """The guard does not admit the call."""


@dataclass(frozen=True)
class Request:
    """One question; no two have the same text."""

    kind: str
    text: str

    @property
    def most(self) -> Reply:
        """Return the dearest reply that the price list and the answer's limit allow."""
        return dearest(len(self.text))


class NoGuard:
    """Admits every call, and adds what the replies that were read say."""

    def __init__(self) -> None:
        self.counted_usd = 0.0
        self.changed = threading.Condition()

    def admit(self, request: Request) -> Any:
        """Return what the call holds, for ``settle``. Raises ``Refused``."""

    def unread(self, _request: Request) -> Reply | None:
        """Return what an attempt counts as that may be billed and was never read."""
        return None

    def settle(self, _held: Any, paid: Reply | None) -> None:
        """Count what an admitted call came to."""
        with self.changed:
            self.counted_usd += paid.cost if paid else 0.0
            self.changed.notify_all()


class CheckThenAdd(NoGuard):
    """Admits a call while what was counted is below the cap."""

    def admit(self, request: Request) -> Any:
        if self.counted_usd >= CAP_USD:
            raise Refused


class _Holding(NoGuard):
    """Holds an amount for each call in flight, and admits a call where all of it fits the cap."""

    def __init__(self) -> None:
        super().__init__()
        self.held_usd = 0.0

    def fits(self, usd: float) -> bool:
        """Return whether a call may start that holds ``usd``; the caller holds the lock."""
        return self.counted_usd + self.held_usd + usd <= CAP_USD

    def settle(self, held: Any, paid: Reply | None) -> None:
        with self.changed:
            self.held_usd -= held
            super().settle(held, paid)


class EstimateAndWait(_Holding):
    """Holds what a call costs on average, and waits where that does not fit."""

    def __init__(self, average_usd: float) -> None:
        super().__init__()
        self._average_usd = average_usd

    def admit(self, request: Request) -> Any:
        with self.changed:
            while not self.fits(self._average_usd):
                if self.counted_usd + self._average_usd > CAP_USD:
                    raise Refused
                self.changed.wait()
            self.held_usd += self._average_usd
            return self._average_usd


class DearestOrRefuse(_Holding):
    """Holds the most that a call may cost, and refuses at once where that does not fit."""

    def admit(self, request: Request) -> Any:
        with self.changed:
            if not self.fits(request.most.cost):
                raise Refused
            self.held_usd += request.most.cost
            return request.most.cost

    def unread(self, request: Request) -> Reply | None:
        return request.most


class Bounded(NoGuard):
    """The module's daily cap. The bound of a call is what ``most`` answers for its request."""

    def __init__(self, bounds: ModuleType, most: Callable[[Request], Reply]) -> None:
        super().__init__()
        self._bounds, self._most = bounds, most
        self._spend = subjects.spend(bounds, CAP_USD)

    def admit(self, request: Request) -> Any:
        try:
            return subjects.admit(self._spend, lambda: self._most(request).cost, self._bounds.never)
        except self._bounds.DecisionBudgetExceeded:
            raise Refused from None

    def unread(self, request: Request) -> Reply | None:
        return self._most(request)

    def settle(self, held: Any, paid: Reply | None) -> None:
        held.settle(paid)
        self.counted_usd = self._spend.spent()


class OnlyRead(Bounded):
    """The same, but it does not count what was never read."""

    def unread(self, _request: Request) -> Reply | None:
        return None


@dataclass(frozen=True)
class Pass:
    """What came of the requests under one guard."""

    billed_usd: float
    counted_usd: float
    seconds: float

    @property
    def over(self) -> float:
        """How far the bill passes the cap, as a part of the cap; negative where it is below."""
        return self.billed_usd / CAP_USD - 1


def requests(seed: int) -> list[Request]:
    """Return the requests of a pass: of all kinds, from 40 to 2,000 bytes, short ones more often."""
    chance = random.Random(seed)
    made = []
    for number in range(_REQUESTS):
        kind = chance.choice(_KINDS)
        text = f"{kind}: {seed}.{number} ".ljust(int(40 * 50 ** chance.random()), ".")
        made.append(Request(kind, text))
    return made


def replies(seed: int) -> list[tuple[Request, Reply]]:
    """Return the replies to the requests of another pass, as the endpoint would answer them."""
    with Endpoint(seed) as endpoint:
        answers = [
            (each, endpoint.attempt(each.kind, each.text, MAX_OUTPUT_TOKENS).answer)
            for each in requests(seed)
        ]
    return [
        (request, Reply(answer["decision"], answer["input_tokens"], answer["cost_usd"]))
        for request, answer in answers
    ]


def run_pass(guard: NoGuard, seed: int) -> Pass:
    """Ask for all requests of ``seed`` under ``guard``; a refused one is not asked again."""
    todo: SimpleQueue[Request] = SimpleQueue()
    for each in requests(seed):
        todo.put(each)

    def work(remote: Remote) -> None:
        while True:
            try:
                request = todo.get_nowait()
                held = guard.admit(request)
            except Refused:
                continue
            except Empty:
                return
            paid: Reply | None = None
            try:
                paid = remote.ask(request.kind, request.text, _TIMEOUT_S)
            except NotBilled:
                pass
            except NotRead:
                paid = guard.unread(request)
            finally:
                guard.settle(held, paid)

    with Endpoint(seed) as endpoint:
        begun = time.perf_counter()
        with ThreadPoolExecutor(_THREADS) as pool:
            workers = [pool.submit(work, Remote(endpoint.url)) for _ in range(_THREADS)]
        for worker in workers:
            worker.result()
        seconds = time.perf_counter() - begun
        billed_usd = math.fsum(charge.cost_usd for charge in endpoint.bill)
    return Pass(billed_usd, guard.counted_usd, seconds)


def guards(bounds: ModuleType, seed: int) -> dict[str, NoGuard]:
    """Return a new guard of each kind by its name; what is learned is from an earlier pass."""
    earlier = replies(1000 + seed)
    rates = bounds.RequestRates()
    for request, reply in earlier:
        rates.learn(len(request.text), request.kind, reply)

    def learned(request: Request) -> Reply:
        return Reply("", 0, rates.cost(len(request.text), request.kind))

    def listed(request: Request) -> Reply:
        return request.most

    return {
        "no guard": NoGuard(),
        "check the spend, add afterwards": CheckThenAdd(),
        "hold the average, wait": EstimateAndWait(
            statistics.mean(reply.cost for _, reply in earlier)
        ),
        "hold the dearest, refuse at once": DearestOrRefuse(),
        "this module, unread not counted": OnlyRead(bounds, listed),
        "this module, learned prices": Bounded(bounds, learned),
        "this module, price list": Bounded(bounds, listed),
    }


def report(build: Path, quick: bool, drawing: Path | None = None) -> str:
    """The table of what each guard lets through; draws it where asked to."""
    bounds = subjects.module(build)
    bounds.logger.disabled = True
    passes: dict[str, list[Pass]] = {}
    for seed in range(2 if quick else 7):
        for name, guard in guards(bounds, seed).items():
            passes.setdefault(name, []).append(run_pass(guard, seed))
    if drawing is not None:
        bars = {
            name: picture.Bar(
                [each.over for each in runs],
                statistics.median(each.counted_usd / CAP_USD - 1 for each in runs),
            )
            for name, runs in passes.items()
        }
        drawing.write_text(picture.draw(bars), encoding="utf-8")
    return subjects.table(
        f"The endpoint's bill beside the cap, {_REQUESTS} requests, {_THREADS} threads, faults on",
        ["guard", "median", "lowest", "highest", "count beside the bill", "pass: s"],
        [
            [
                name,
                _percent(statistics.median(each.over for each in runs)),
                _percent(min(each.over for each in runs)),
                _percent(max(each.over for each in runs)),
                _percent(
                    statistics.median(each.counted_usd / each.billed_usd - 1 for each in runs)
                ),
                f"{statistics.median(each.seconds for each in runs):.1f}",
            ]
            for name, runs in passes.items()
        ],
    )


def _percent(part: float) -> str:
    return f"{100 * part:+.1f} %"
