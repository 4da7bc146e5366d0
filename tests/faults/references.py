"""Counts references, exactly: under a debug build of an interpreter, which has a total of them all.

    PYTHONPATH=build/references python3-dbg -m tests.faults.references

Does each thing again and again: each operation, each error from each callback and property, each use
of an attribute, and loading and unloading. The exit status is 1 where the total does not stand still.
"""

from __future__ import annotations

import copy
import gc
import importlib
import logging
import pickle
import sys
import threading
from collections.abc import Callable
from functools import partial
from typing import Any

from tests.faults import memory
from tests.faults.conditions import Steady, Subclass
from tests.faults.test_points import COURSES, Points, World
from tests.module.support import Boom, Reply, account, bounds

TIMES = 20
TRIALS = 5  # What is cached on the way settles after some.
PAID = Reply(False, 5, 0.5)

total: Callable[[], int] = getattr(sys, "gettotalrefcount", lambda: 0)


def fails(call: Callable[..., Any], *arguments: Any, **named: Any) -> None:
    """Call what raises."""
    try:
        call(*arguments, **named)
    except BaseException:
        return
    raise AssertionError(f"{call} did not raise")


def each_error(course: Callable[[World], None]) -> None:
    """Run a course to its end, and with an error at each point of it."""
    points = Points(-1, Boom())
    course(World(points))
    for failing in range(len(points.asked)):
        for error in (Boom(), ValueError()):
            try:
                course(World(Points(failing, error)))
            except (Boom, ValueError):
                pass


def each_allocation(name: str) -> None:
    """Run an operation without memory at each of its points."""
    operation = memory.OPERATIONS[name]
    number = 0
    while memory.point(memory.Trial(Steady()), operation, number, False) is not None:
        number += 1


def wait_in_vain() -> None:
    """Wait for a room that does not come, until the deadline and until the stop."""
    spend, stops = account(), iter([False, True])
    spend.admit(lambda: 1e9, deadline=None, clock=None, stopping=bounds.never)
    times = iter([0.0, 0.0, 9.0])
    late = {"deadline": 1.0, "clock": lambda: next(times), "stopping": bounds.never}
    stopped = {"deadline": None, "clock": None, "stopping": lambda: next(stops)}
    for ends in (late, stopped):
        fails(spend.admit, float, **ends)


def be_refused() -> None:
    """Ask a full pass and a full day."""
    fails(bounds.RunBudget(0, 9).hold, 1.0)
    fails(bounds.RunBudget(9, 9, should_stop=lambda: True).hold, 1.0)
    waits = {"deadline": None, "clock": None, "stopping": bounds.never}
    fails(account(cap=0.0).admit, float, **waits)


def use_attributes(made: Any) -> None:
    """Read, set, delete and add attributes; copy, compare, print."""
    for name in [name for name in dir(made) if not name.startswith("__")]:
        value = getattr(made, name)
        if not callable(value):
            delattr(made, name)
            fails(getattr, made, name)
            fails(delattr, made, name)
            setattr(made, name, value)
    made.more = made
    repr(made)
    del made.more
    made.__getstate__()
    assert made == made
    fails(setattr, made, 1, 2)


def misuse() -> None:
    """Call what does not fit."""
    budget = bounds.RunBudget(9, 9)
    fails(budget.hold)
    fails(budget.hold, 1.0, 2.0)
    fails(budget.hold, token=1.0)
    fails(budget.hold, tokens="many")
    fails(bounds.RunBudget.hold, bounds._Held(), 1.0)
    fails(bounds.RunBudget.__new__(bounds.RunBudget).hold, 1.0)
    fails(budget.charge, object())
    fails(bounds._wait, budget._changed, stopping=None)
    fails(bounds.RunBudget(9, "few").hold, 1.0)


def derive() -> None:
    """Make a subclass and let it go."""

    class Derived(bounds.RunBudget):  # type: ignore[misc]
        __slots__ = ("more",)
        calls = 5

    derived = Derived(9, 9)
    derived.more = derived
    with derived.hold(1.0) as share:
        share.settle(PAID)
    copy.copy(derived._held_tokens)


def hold_in_a_cycle() -> None:
    """Leave shares, bounds and callbacks that hold each other."""
    budget = bounds.RunBudget(9, 9)
    budget.should_stop = lambda: bool(budget.calls)
    share = budget.hold(1.0)
    share.me = share


def over(condition: Any) -> None:
    """Make calls over a condition of the caller's."""
    budget = bounds.RunBudget(9, 9, _changed=condition())
    with budget.hold(tokens=1.5) as share:
        share.settle(reply=PAID)
    budget.summary()
    fails(bounds.RunBudget(0, 9, _changed=condition()).reserve)


def load() -> None:
    """Load one more copy, use it and let it go."""
    kept = sys.modules.pop("engines.decision_bounds")
    other = importlib.import_module("engines.decision_bounds")
    with other.RunBudget(9, 9).hold(1.0) as share:
        share.settle(PAID)
    fails(other.RunBudget(0, 9).hold, 1.0)
    sys.modules["engines.decision_bounds"] = kept
    setattr(sys.modules["engines"], "decision_bounds", kept)


COURSES_OF_ALL: dict[str, Callable[[], object]] = {
    **{course.__name__: partial(each_error, course) for course in COURSES},
    **{f"{name} without memory": partial(each_allocation, name) for name in memory.OPERATIONS},
    "wait_in_vain": wait_in_vain,
    "be_refused": be_refused,
    "attributes of a pass": lambda: use_attributes(bounds.RunBudget(9, 9)),
    "attributes of an account": lambda: use_attributes(account()),
    "attributes of rates": lambda: use_attributes(bounds.RequestRates()),
    "attributes of a share": lambda: use_attributes(bounds.RunBudget(9, 9).hold(1.0)),
    "attributes of a tally": lambda: use_attributes(bounds._Held(1, 2.0)),
    "text and numbers": lambda: (repr(bounds.RunBudget(10**30, 1.5)), bounds._Held(10**40)),
    "pickle": lambda: pickle.loads(pickle.dumps([bounds._Held(1, 2.0), bounds.never])),
    "misuse": misuse,
    "derive": derive,
    "hold_in_a_cycle": hold_in_a_cycle,
    "a condition of the host": lambda: over(threading.Condition),
    "a subclass of it": lambda: over(Subclass),
    "a reentrant lock": lambda: fails(over, threading.RLock),
    "load": load,
}


def grown(course: Callable[[], object]) -> int:
    """What the total grows by when the course is run so many times; the trial keeps a few itself."""
    gc.collect()
    before = total()
    for _ in range(TIMES):
        course()
    gc.collect()
    return total() - before


def main() -> int:
    """Try them all."""
    bounds._POLL_S = 1e-6
    bounds.logger.setLevel(logging.CRITICAL)
    leaks = 0
    for name, course in COURSES_OF_ALL.items():
        growths = [grown(course) for _ in range(TRIALS)]
        # One reference that a course loses would be as many as its runs.
        if min(growths, key=abs) not in range(-TIMES + 1, TIMES):
            leaks += 1
            print(f"{name}: {growths} references more after {TIMES} times")
    print(f"{len(COURSES_OF_ALL)} courses, {leaks} of them with a total that moves")
    return 1 if leaks or total() == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
