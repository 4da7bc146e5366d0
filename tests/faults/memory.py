"""Runs operations again and again, each time without memory at one more point.

    PYTHONPATH=build/release python -m tests.faults.memory CONDITION one|all

One allocation fails, or all from there on. The exit status is 1 where at a point the call raises
anything but ``MemoryError``, or leaves its lock taken or something held that no share gives back,
unless that is known of the condition by itself (``--known``).
"""

from __future__ import annotations

import argparse
import importlib
import logging
import re
import sys
from collections.abc import Callable
from typing import Any

from tests.faults.conditions import CONDITIONS, LOCK_TAKEN, NOT_RUN
from tests.module.support import Reply, account, bounds

testing: Any = importlib.import_module("_testcapi")
QUIET_POINTS = 30  # So many in a row at which nothing fails lie behind the operation's end.
# What the interpreter says instead, also to plain Python (test_memory.py): where a lock cannot be made,
# where the lock of a condition could not be taken back after its wait, and where the frame of a
# failing function cannot be made.
INTERPRETER_SAYS = re.compile(
    "can't allocate lock|cannot release un-acquired lock"
    "|error return without exception set|<function .* returned NULL without setting an exception"
).search
PAID = Reply(False, 5, 0.5)
# Made before: CPython 3.12 and 3.13 crash where there is no memory for a function.
FAILS: Any = lambda *_: 1 / 0


class Trial:
    """Bounds and shares, new for each point."""

    def __init__(self, condition: Any) -> None:
        self.changed = condition
        self.budget = bounds.RunBudget(9, 99, _changed=condition)
        self.spend = account()
        self.spend._changed = condition
        self.rates = bounds.RequestRates()
        self.tokens = self.budget.hold(2.5)
        self.usd = self.admit()
        self.full = bounds.RunBudget(0, 9, _changed=condition)
        answers = iter([False, False, False, True])
        self.stopped = bounds.RunBudget(
            9, 9, should_stop=answers.__next__, _held_tokens=bounds._Held(1, 9), _changed=condition
        )
        self.failing = bounds.RunBudget(9, 9, should_stop=FAILS, _changed=condition)
        self.unread = account(ledger=FAILS)
        self.unread._changed = condition

    def admit(self, bound: Callable[[], float] = float) -> Any:
        waits: Any = {"deadline": None, "clock": None, "stopping": bounds.never}
        return self.spend.admit(bound, **waits)

    @staticmethod
    def fails(error: type[Exception], hold: Callable[[Any], Any], share: Any = 2.5) -> None:
        """Hold a share that is not to be had."""
        try:
            hold(share)
        except error:
            pass

    def fault(self, made: Any) -> str:
        """What is wrong after the operation, which may have ``made`` a share; or nothing."""
        if self.changed._lock._is_owned() or self.rates._lock.locked():
            return LOCK_TAKEN
        shares = [self.tokens, self.usd]
        if isinstance(made, bounds.Share):
            shares.append(made)
        elif made is not None:
            self.budget.release()
        for share in shares:
            share.settle(None)
        held = self.budget.in_flight, self.budget._held_tokens, self.spend._held
        idle = (0, bounds._Held(), bounds._Held())
        return "" if held == idle else NOT_RUN


OPERATIONS: dict[str, Callable[[Trial], Any]] = {
    "reserve": lambda trial: trial.budget.reserve() is None,
    "hold": lambda trial: trial.budget.hold(2.5),
    "hold by keyword": lambda trial: trial.budget.hold(tokens=2.5),
    "admit": Trial.admit,
    "settle paid": lambda trial: trial.tokens.settle(PAID),
    "settle unpaid": lambda trial: trial.tokens.settle(None),
    "settle by keyword": lambda trial: trial.tokens.settle(reply=PAID),
    "settle a day": lambda trial: trial.usd.settle(PAID),
    "leave": lambda trial: trial.usd.__exit__(None, None, None),
    "charge a day": lambda trial: trial.spend.charge(PAID),
    "spent": lambda trial: trial.spend.spent() and None,
    "summary": lambda trial: trial.budget.summary() and None,
    "exhausted": lambda trial: trial.budget.exhausted() and None,
    "learn": lambda trial: trial.rates.learn(5, "kind", PAID),
    "cost": lambda trial: trial.rates.cost(5, "kind") and None,
    "make a budget": lambda trial: bounds.RunBudget(9, 99) and None,
    "make an account": lambda trial: bounds.DailySpend(1.0, str, None) and None,
    "text": lambda trial: repr(trial.budget) and None,
    "be refused": lambda trial: trial.fails(bounds.DecisionBudgetExceeded, trial.full.hold),
    "wait": lambda trial: trial.fails(bounds.DecisionStopped, trial.stopped.hold),
    "fail": lambda trial: trial.fails(ZeroDivisionError, trial.failing.hold),
    "fail to bound": lambda trial: trial.fails(ZeroDivisionError, trial.admit, FAILS),
    "start a day": lambda trial: trial.unread.spent() and None,
}


def point(trial: Trial, operation: Callable[[Trial], Any], number: int, on: bool) -> str | None:
    """Run the operation without memory at a point. Returns what is wrong; none if it was not reached."""
    made = None
    # The text: an error that is kept keeps this frame, which keeps it. The interpreter has but 16 of
    # them for when there is no memory, and ends where all are in use.
    raised: str | None = None
    give_memory = testing.remove_mem_hooks
    testing.set_nomemory(number, 0 if on else number + 1)
    try:
        made = operation(trial)
    except BaseException as error:
        give_memory()
        raised = "" if isinstance(error, MemoryError) else repr(error)
    give_memory()
    if raised and not INTERPRETER_SAYS(raised):
        return f"raises {raised}"
    return trial.fault(made) or (None if raised is None else "")


def try_points(condition: Any, name: str, on: bool) -> set[str]:
    """Try all points of an operation, and print how many there were. Returns what was wrong."""
    operation = OPERATIONS[name]
    print(f"{name}:", end=" ", flush=True)
    operation(Trial(condition()))  # What is made once is made now.
    number, quiet, faults = 0, 0, []
    while quiet < QUIET_POINTS:
        wrong = point(Trial(condition()), operation, number, on)
        quiet = quiet + 1 if wrong is None else 0
        if wrong:
            faults.append((number, wrong))
        number += 1
    print(f"{number - quiet} points", *(f"  at {at}: {wrong}" for at, wrong in faults), sep="\n")
    return {wrong for _, wrong in faults}


def main() -> int:
    """Try the points of the operations that are asked for, or of all but loading."""
    parser = argparse.ArgumentParser(prog="python -m tests.faults.memory", description=__doc__)
    parser.add_argument("condition", choices=CONDITIONS)
    parser.add_argument("memory", choices=("one", "all"), help="the allocations that fail")
    parser.add_argument("--known", action="append", default=[], help="what may go wrong")
    parser.add_argument("operations", nargs="*", default=list(OPERATIONS))
    options = parser.parse_args()
    bounds._POLL_S = 1e-6
    bounds.logger.setLevel(logging.CRITICAL)
    condition = CONDITIONS[options.condition]
    faults = [try_points(condition, name, options.memory == "all") for name in options.operations]
    return 0 if set().union(*faults) <= set(options.known) else 1


if __name__ == "__main__":
    sys.exit(main())
