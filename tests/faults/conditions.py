"""Conditions that a caller may hand in, and what they do by themselves where memory runs out.

    python -m tests.faults.conditions CONDITION one|all

Runs ``with changed: ...`` in plain Python, each time without memory at one more point, and prints
``LOCK_TAKEN`` where a point left the lock taken, and ``NOT_RUN`` where it kept the block from running.
"""

from __future__ import annotations

import importlib
import sys
import threading
from typing import Any

testing: Any = importlib.import_module("_testcapi")
LOCK_TAKEN = "the lock is taken"
NOT_RUN = "something is held"  # What the block would have given back.
POINTS = 40


class Steady(type(threading.RLock())):  # type: ignore[misc]
    """A condition that needs no memory: what goes wrong beside it is not its own."""

    wait = notify_all = staticmethod(bool)

    @property
    def _lock(self) -> Any:
        return self


class Foreign:
    """A condition of the caller's own."""

    def __init__(self) -> None:
        self._lock = threading.RLock()

    def __enter__(self) -> None:
        self._lock.acquire()

    def __exit__(self, *error: object) -> None:
        self._lock.release()

    def wait(self, _timeout: float) -> None:
        """Nobody wakes."""

    def notify_all(self) -> None:
        """Nobody waits."""


class Subclass(threading.Condition):
    """A condition that is not exactly the host's own."""


def patched() -> Any:
    """Make a condition of the host's own, with a method of the caller's."""
    condition: Any = threading.Condition()
    condition.notify_all = bool
    return condition


CONDITIONS: dict[str, Any] = {
    "own": threading.Condition,
    "steady": Steady,
    "foreign": Foreign,
    "subclass": Subclass,
    "patched": patched,
}


def enter_and_leave(changed: Any, number: int, last: int) -> set[str]:
    """Run the statement without memory from one point to another; return what was wrong."""
    has_run = False
    testing.set_nomemory(number, last)
    try:
        with changed:
            has_run = True
    except MemoryError:
        pass
    testing.remove_mem_hooks()
    faults = {LOCK_TAKEN: changed._lock._is_owned(), NOT_RUN: not has_run}
    return {fault for fault, is_so in faults.items() if is_so}


def main(name: str, memory: str) -> None:
    """Try the points, and print what was wrong at any."""
    faults = set()
    for number in range(POINTS):
        last = 0 if memory == "all" else number + 1
        faults |= enter_and_leave(CONDITIONS[name](), number, last)
    print(*sorted(faults), sep="\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
