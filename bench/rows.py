"""The operations of the surface, timed on the module, its plain twin and the floor in alternation.

Run by the interpreter that is to be measured, as ``python -m bench.rows BUILD REPEATS``; prints the
nanoseconds of each row and subject as JSON.
"""

from __future__ import annotations

import json
import sys
import time
import timeit
from dataclasses import dataclass
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import subjects

_SLICE_S = 0.002  # Short: on a busy machine some slices then run undisturbed.


@dataclass(frozen=True)
class Row:
    """An operation, and how much cheaper than plain Python it is to be on CPython 3.10."""

    name: str
    statement: str
    goal: float | None = None


ROWS = (
    Row("reserve + charge", "budget.reserve(700.0); budget.charge(reply, 700.0)", 10.0),
    Row("reserve + release", "budget.reserve(700.0); budget.release(700.0)", 10.0),
    Row("hold + settle in a `with`", "with budget.hold(700.0) as share: share.settle(reply)", 10.0),
    Row(
        "admit + settle in a `with`",
        "with spend.admit(bound, deadline=None, clock=clock, stopping=never) as share:"
        " share.settle(reply)",
        7.0,
    ),
    Row("a cache hit", "budget.charge(hit)", 4.0),
    Row("`RequestRates.cost`", "rates.cost(2000, 'summary')", 4.0),
    Row("`tokens`", "rates.tokens(2000)", 4.0),
    Row("`learn`", "rates.learn(2000, 'summary', reply)", 4.0),
    Row("`summary`", "budget.summary()"),
    Row("`spent`", "spend.spent()", 4.0),
    Row("making a `RunBudget`", "RunBudget(1000, 1000000)"),
)


def objects(bounds: ModuleType) -> dict[str, Any]:
    """New objects of ``bounds``, and callbacks and replies, under the names of the rows."""
    reply, rates = subjects.Reply(), bounds.RequestRates()
    rates.learn(2000, "summary", reply)
    return {
        "budget": subjects.budget(bounds),
        "spend": subjects.spend(bounds),
        "rates": rates,
        "reply": reply,
        "hit": subjects.Reply(cached=True),
        "bound": lambda: reply.cost,
        "clock": time.monotonic,
        "never": bounds.never,
        "RunBudget": bounds.RunBudget,
    }


def timer(names: dict[str, Any], statement: str) -> timeit.Timer:
    """A timer of ``statement``, with ``names`` local to it."""
    return timeit.Timer(
        statement, f"{', '.join(names)} = values", globals={"values": names.values()}
    )


def best_ns(timers: dict[str, timeit.Timer], repeats: int) -> dict[str, float]:
    """Nanoseconds of one run of each statement: the best of ``repeats`` slices, in alternation."""
    loops = {}
    for name, each in timers.items():
        each.timeit(100)
        loops[name] = max(1, int(_SLICE_S / each.timeit(1000) * 1000))
    best = dict.fromkeys(timers, float("inf"))
    for _ in range(repeats):
        for name, each in timers.items():
            best[name] = min(best[name], each.timeit(loops[name]) / loops[name] * 1e9)
    return best


def main() -> None:
    build, repeats = Path(sys.argv[1]), int(sys.argv[2])
    measured = {
        "module": subjects.module(build),
        "plain": subjects.plain(),
        "floor": subjects.floor(build),
    }
    figures = {
        row.name: best_ns(
            {name: timer(objects(each), row.statement) for name, each in measured.items()}, repeats
        )
        for row in ROWS
    }
    json.dump(figures, sys.stdout)


if __name__ == "__main__":
    main()
