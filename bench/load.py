"""Many threads that hold and settle against a token bound with room for one call at a time.

The poll interval is set so long that a waiter which nobody wakes would show at once: as a wait of
half a minute, and as a run that does not end.
"""

from __future__ import annotations

import statistics
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import subjects

_THREADS = (1, 4, 16, 64, 256)
_POLL_S = 30.0
_CALL_S = 0.00005
_FREE = subjects.Reply(input_tokens=0, cost=0.0)


class _WakesOne(threading.Condition):
    """Wakes one where all are to be woken, as if it knew who goes ahead: the room is for one."""

    def notify_all(self) -> None:
        self.notify()


@dataclass
class Run:
    """What the threads of one run did: calls, and the seconds that waiters took to be admitted."""

    calls: int = 0
    seconds: float = 0.0
    admitted_after_s: list[float] = field(default_factory=list)

    @property
    def calls_per_s(self) -> float:
        """Calls of all threads together."""
        return self.calls / self.seconds


def instant_calls(budget: Any, ended: list[bool], run: Run) -> None:
    """Calls that take no time: a thread seldom loses the interpreter while it holds a share."""
    while not ended:
        with budget.hold(1.0) as share:
            share.settle(_FREE)
        run.calls += 1


def short_calls(budget: Any, ended: list[bool], run: Run) -> None:
    """Calls and pauses of some microseconds each, so that the other threads' calls have to wait."""
    while not ended:
        has_to_wait = budget.in_flight > 0
        with budget.hold(1.0) as share:
            if has_to_wait:
                # The room is for one, so the last give-back is the one that made way for this call.
                run.admitted_after_s.append(time.perf_counter() - budget.given_back_at)
            time.sleep(_CALL_S)
            budget.given_back_at = time.perf_counter()
            share.settle(_FREE)
        run.calls += 1
        time.sleep(_CALL_S)


def run_threads(
    bounds: ModuleType,
    calls: Callable[[Any, list[bool], Run], None],
    count: int,
    seconds: float,
    wakes_one: bool = False,
) -> Run:
    """Run ``calls`` on ``count`` threads for so many ``seconds``, and until they have ended."""
    setattr(bounds, "_POLL_S", _POLL_S)
    budget = subjects.budget(bounds, max_tokens=1)
    if wakes_one:
        budget._changed = _WakesOne()
    budget.given_back_at = time.perf_counter()
    ended: list[bool] = []
    runs = [Run() for _ in range(count)]
    # Threads that are at work already would hold up the start of the others.
    begin = threading.Event()

    def make_calls(run: Run) -> None:
        begin.wait()
        calls(budget, ended, run)

    threads = [threading.Thread(target=make_calls, args=(each,)) for each in runs]
    for thread in threads:
        thread.start()
    start = time.perf_counter()
    begin.set()
    time.sleep(seconds)
    ended.append(True)
    for thread in threads:
        thread.join()
    return Run(
        sum(each.calls for each in runs),
        time.perf_counter() - start,
        sum((each.admitted_after_s for each in runs), []),
    )


def report(build: Path, quick: bool) -> str:
    """The table of throughput and of the time from a give-back to a waiter's admission."""
    measured = {"module": subjects.module(build), "plain": subjects.plain()}
    lines = []
    for count in _THREADS:
        best: dict[str, Run] = {}
        waits: list[float] = []
        for _ in range(1 if quick else 3):
            for name, bounds in measured.items():
                for calls in (instant_calls, short_calls):
                    run = run_threads(bounds, calls, count, 0.3 if quick else 1.0)
                    key = f"{name} {calls.__name__}"
                    best[key] = max(best.get(key, run), run, key=lambda each: each.calls_per_s)
                    if name == "module":
                        waits += run.admitted_after_s
            run = run_threads(
                measured["module"], short_calls, count, 0.3 if quick else 1.0, wakes_one=True
            )
            best["one"] = max(best.get("one", run), run, key=lambda each: each.calls_per_s)
        instant, short = best["module instant_calls"], best["module short_calls"]
        lines.append(
            [
                count,
                f"{instant.calls_per_s:,.0f}",
                f"{instant.calls_per_s / best['plain instant_calls'].calls_per_s:.1f}",
                f"{short.calls_per_s:,.0f}",
                f"{short.calls_per_s / best['plain short_calls'].calls_per_s:.1f}",
                f"{best['one'].calls_per_s / best['plain short_calls'].calls_per_s:.1f}",
                f"{100 * len(short.admitted_after_s) / short.calls:.0f} %",
                *_milliseconds(waits),
            ]
        )
    return subjects.table(
        f"Room for one call, many threads, a poll interval of {_POLL_S:g} s: calls a second, and ms"
        " from a give-back to the admission of a call that waited",
        [
            "threads",
            "calls of no length",
            "times plain",
            "calls of some µs",
            "times plain",
            "if one were woken",
            "had to wait",
            "median",
            "99 %",
            "longest",
        ],
        lines,
    )


def _milliseconds(waits_s: list[float]) -> list[str]:
    """The median, the 99th percentile and the longest of the waits."""
    if len(waits_s) < 2:
        return ["", "", ""]
    hundredths = statistics.quantiles(waits_s, n=100)
    return [f"{1000 * each:.2f}" for each in (hundredths[49], hundredths[98], max(waits_s))]
