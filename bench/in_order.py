"""What a turnstile in front of a bound changes: the first call of a kind, and threads that wait."""

from __future__ import annotations

import math
import threading
import time
from collections.abc import Callable
from contextlib import suppress
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import subjects

_THREADS = (16, 64, 256)
_CALLS_S = {"no length": 0.0, "some µs": 0.00005}
_CALLERS, _ROOM, _CALL_S, _GIVE_UP_S = 8, 4, 0.02, 2.0


def report(build: Path, quick: bool) -> str:
    """The tables of throughput, and of the wait of a first call of its kind."""
    bounds = subjects.module(build)
    # Not before, since it uses the module that is imported at that time.
    from examples.in_order.bounds import BudgetInOrder

    return _throughput(bounds, BudgetInOrder, quick) + "\n" + _first_call(bounds, BudgetInOrder)


def _throughput(bounds: ModuleType, in_order: Callable[[Any], Any], quick: bool) -> str:
    """Calls a second with room for one call at a time."""
    lines = []
    for length, call_s in _CALLS_S.items():
        for count in _THREADS:
            best = {"alone": 0.0, "in order": 0.0}
            for _ in range(1 if quick else 5):
                for name in best:
                    budget = subjects.budget(bounds, max_tokens=1)
                    asked = budget if name == "alone" else in_order(budget)
                    best[name] = max(best[name], _calls_per_s(asked, count, call_s))
            alone, ordered = best.values()
            lines.append(
                [length, count, f"{alone:,.0f}", f"{ordered:,.0f}", f"{ordered / alone:.2g}"]
            )
    longest = 1 / _sleep_s(_CALLS_S["some µs"])
    return subjects.table(
        "Room for one call: calls a second of the bound alone, and in order of arrival (calls of"
        f" some µs, one after the other without a bound: {longest:,.0f})",
        ["calls of", "threads", "alone", "in order", "times"],
        lines,
    )


def _calls_per_s(budget: Any, count: int, call_s: float) -> float:
    """Let ``count`` threads make calls, with pauses as long, for half a second."""
    calls = [0] * count
    begin, ended = threading.Event(), threading.Event()

    def work(index: int) -> None:
        begin.wait()
        while not ended.is_set():
            with budget.hold(1.0):
                if call_s:
                    time.sleep(call_s)
            calls[index] += 1
            if call_s:
                time.sleep(call_s)

    threads = [threading.Thread(target=work, args=(index,)) for index in range(count)]
    for thread in threads:
        thread.start()
    start = time.perf_counter()
    begin.set()
    time.sleep(0.5)
    ended.set()
    for thread in threads:
        thread.join()
    return sum(calls) / (time.perf_counter() - start)


def _sleep_s(length_s: float) -> float:
    """How long a sleep of ``length_s`` seconds takes."""
    start = time.perf_counter()
    for _ in range(1000):
        time.sleep(length_s)
    return (time.perf_counter() - start) / 1000


def _first_call(bounds: ModuleType, in_order: Callable[[Any], Any]) -> str:
    """How long a call that must be alone waits beside others that never pause."""
    waits = {
        "alone": _longest_wait_s(bounds, lambda budget: budget),
        "in order": _longest_wait_s(bounds, in_order),
    }
    return subjects.table(
        f"A first call of its kind beside {_CALLERS} threads that never pause, with room for {_ROOM}"
        f" calls of {1000 * _CALL_S:.0f} ms: the longest wait of 10, ms",
        ["bound", "wait"],
        [
            [name, f"{1000 * wait_s:.0f}" if wait_s else f"not admitted in {_GIVE_UP_S:g} s"]
            for name, wait_s in waits.items()
        ],
    )


def _longest_wait_s(bounds: ModuleType, asked: Callable[[Any], Any]) -> float | None:
    """The longest of 10 waits of a call that must be alone; none where one was given up."""
    give_up = math.inf
    budget = asked(
        bounds.RunBudget(10**9, _ROOM, should_stop=lambda: time.perf_counter() > give_up)
    )
    ended = threading.Event()

    def work(number: int) -> None:
        time.sleep(number * _CALL_S / _CALLERS)
        while not ended.is_set():
            with suppress(bounds.DecisionStopped), budget.hold(1.0):
                time.sleep(_CALL_S)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(_CALLERS)]
    for thread in threads:
        thread.start()
    longest_s = 0.0
    try:
        for _ in range(10):
            time.sleep(3 * _CALL_S)
            start = time.perf_counter()
            give_up = start + _GIVE_UP_S
            with budget.hold(math.inf):
                longest_s = max(longest_s, time.perf_counter() - start)
    except bounds.DecisionStopped:
        return None
    finally:
        give_up = math.inf
        ended.set()
        for thread in threads:
            thread.join()
    return longest_s
