"""What long use changes: the cost of an operation, and the memory of the objects."""

from __future__ import annotations

import gc
import tracemalloc
from collections.abc import Callable
from functools import partial
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import native, rows, subjects

_DAYS = 10_000


def report(build: Path, quick: bool) -> str:
    """The tables of cost after long use, and of memory."""
    return _cost(build, quick) + "\n" + _memory(build, quick)


def _cost(build: Path, quick: bool) -> str:
    calls, features = (1_000_000, 10_000) if quick else (10_000_000, 100_000)
    bounds = subjects.module(build)
    used, equal = rows.objects(bounds), rows.objects(bounds)
    _use(used, calls, features)
    # Large numbers take the interpreter longer than small ones, however few calls they come from.
    total = subjects.Reply(input_tokens=used["budget"].input_tokens, cost=used["budget"].cost)
    equal["budget"].charge(total)
    equal["spend"].charge(total)
    lines = []
    # Making a budget is left out: it is always a new one.
    for row in rows.ROWS[:-1]:
        worlds = {"new": rows.objects(bounds), "one call": equal, "used": used}
        timers = {name: rows.timer(each, row.statement) for name, each in worlds.items()}
        ns = rows.best_ns(timers, 5 if quick else 25)
        times = ns["used"] / ns["one call"]
        lines.append([row.name, *(f"{each:.0f}" for each in ns.values()), f"{times:.2f}"])
    for name, (new_ns, used_ns) in native.growth(build, quick).items():
        times = used_ns / new_ns
        lines.append([f"plain C++: {name}", f"{new_ns:.0f}", "", f"{used_ns:.0f}", f"{times:.2f}"])
    return subjects.table(
        f"Nanoseconds when new, after one call with the tokens and cost of all, and after {calls:,}"
        f" calls, {features:,} features and {_DAYS:,} days (in plain C++ always 10,000,000, 100,000"
        " and 10,000)",
        ["operation", "new", "one large call", "after use", "times"],
        lines,
    )


def _use(names: dict[str, Any], calls: int, features: int) -> None:
    """Make the objects of the rows older by so many calls, features and days."""
    budget, spend, rates, reply = (names[each] for each in ("budget", "spend", "rates", "reply"))
    for _ in range(calls):
        budget.reserve(1.0)
        budget.charge(reply, 1.0)
    for feature in range(features):
        rates.learn(2000, f"feature {feature}", reply)
    today = spend._today
    for day in range(_DAYS):
        spend._today = partial(str, day)
        spend.charge(reply)
    spend._today = today


def _memory(build: Path, quick: bool) -> str:
    count = 10_000 if quick else 100_000
    worlds = {"module": subjects.module(build), "plain": subjects.plain()}
    measured = {name: _bytes_of_each(bounds, count) for name, bounds in worlds.items()}
    lines = [
        [kind, *(f"{each[kind][0]:.0f}" for each in measured.values()), f"{kept:.2f}"]
        for kind, (_, kept) in measured["module"].items()
    ]
    return subjects.table(
        f"Bytes of each of {count:,} objects, with its condition or lock, and what the module keeps"
        " of each when they are gone",
        ["object", "module", "plain", "kept"],
        lines,
    )


def _bytes_of_each(bounds: ModuleType, count: int) -> dict[str, tuple[float, float]]:
    """By kind: bytes of an object, and bytes of it that are kept when ``count`` are gone."""
    budget, spend = subjects.budget(bounds), subjects.spend(bounds)
    makers: dict[str, Callable[[], Any]] = {
        "share of a budget": partial(budget.hold, 0.0),
        "share of the daily cap": partial(subjects.admit, spend, float, bounds.never),
        "budget": partial(subjects.budget, bounds),
        "account": partial(subjects.spend, bounds),
        "request rates": bounds.RequestRates,
    }
    return {kind: _traced(make, count) for kind, make in makers.items()}


def _traced(make: Callable[[], Any], count: int) -> tuple[float, float]:
    """Bytes of each of ``count`` objects, and bytes of each that are kept when they are gone."""
    tracemalloc.start()
    made: list[Any] = [make() for _ in range(count)]
    # The interpreter keeps some memory of the first objects at hand for the next.
    made[:] = [None] * count
    gc.collect()
    before, _ = tracemalloc.get_traced_memory()
    for index in range(count):
        made[index] = make()
    held, _ = tracemalloc.get_traced_memory()
    made[:] = [None] * count
    gc.collect()
    after, _ = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    return (held - before) / count, (after - before) / count
