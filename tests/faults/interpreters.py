"""Interpreters beside the main one use the module side by side, in a thread each, and end.

    PYTHONPATH=build/release python -m tests.faults.interpreters ROUNDS

From CPython 3.12 on each has a lock of its own. The exit status is 1 where one counts wrongly, sees
what is another's, or leaves something behind.
"""

from __future__ import annotations

import importlib
import os
import sys
import threading
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from typing import Any

bounds: Any = importlib.import_module("engines.decision_bounds")
INTERPRETERS = 4
CALLS = 300
PATIENCE_S = 60.0
# In the threads of such an interpreter CPython 3.12 corrupts memory, and earlier ones make none.
THREADS = 3 if sys.version_info >= (3, 13) else 1
# Loads the module while `round` is the owner of a pipe, which from then on the module's state keeps.
# An `epoll` closes what it owns when it is let go; a file would be closed by the cycle collector first.
START = """
import builtins, select, sys
sys.path[:] = {path}
owner = getattr(select, "epoll", getattr(select, "kqueue", None)).fromfd({file})
builtins.round, builtin = owner, builtins.round
from tests.faults import interpreters
builtins.round = builtin
interpreters.use({number}, owner)
"""
CHECK = "assert (interpreters.bounds._POLL_S, interpreters.bounds.Share.note) == ({0}, {0})"


@dataclass
class Reply:
    """A paid reply. It uses no tokens, so that the room in the pass stays as small as it is."""

    input_tokens: int = 0
    cost: float = 0.25
    cached: bool = False


class Interpreter:
    """An interpreter beside the main one."""

    _execute: Any
    close: Any

    def __init__(self) -> None:
        if sys.version_info >= (3, 14):
            made = importlib.import_module("concurrent.interpreters").create()
            self._execute, self.close = made.exec, made.close
        else:
            name = "_interpreters" if sys.version_info >= (3, 13) else "_xxsubinterpreters"
            host = importlib.import_module(name)
            number = host.create()
            self._execute = lambda text: host.run_string(number, text)
            self.close = lambda: host.destroy(number)

    def execute(self, text: str) -> None:
        """Run a program in it. An error there is an error here."""
        failure = self._execute(text)
        if failure is not None:  # CPython 3.13 returns it.
            raise AssertionError(failure.formatted)


def use(number: int, owner: Any) -> None:
    """Make calls that wait for each other; leave names rebound, shares held and the pipe open.

    Writes where the objects are that this interpreter's copy of the module has made.
    """
    budget = bounds.RunBudget(10**9, 9)
    spend = bounds.DailySpend(10.0**6, lambda: "2030-01-31", None)
    waits: Any = {"deadline": None, "clock": None, "stopping": budget.stopping}

    def make_calls(_thread: int) -> None:
        for _ in range(CALLS):
            budget.hold(5.0).settle(Reply())
            spend.admit(lambda: 6e5, **waits).settle(Reply())

    make_calls(0)
    with ThreadPoolExecutor() as pool:
        list(pool.map(make_calls, range(1, THREADS)))
    calls = CALLS * THREADS
    assert budget == bounds.RunBudget(10**9, 9, calls, 0, calls * 0.25), budget
    assert (spend.spent(), spend._held) == (calls * 0.25, bounds._Held())

    share = budget.hold(5.0)
    bounds._POLL_S = bounds.Share.note = number
    share.owner = bounds.never.owner = owner
    budget.share = share
    named = [*vars(bounds).values(), *vars(bounds.RunBudget).values()]
    own = [it for it in named if getattr(it, "__module__", "") == bounds.__name__]
    assert len(own) > 15, own
    bounds.left = [bounds, type(bounds.never), budget, share, share._give_back, *own]
    os.write(owner.fileno(), " ".join({str(id(it)) for it in bounds.left}).encode())


def go_round() -> None:
    """Make interpreters, use them side by side and end them, each in a thread of its own."""
    all_used = threading.Barrier(INTERPRETERS, timeout=PATIENCE_S)

    def live(number: int) -> list[bytes]:
        end, other_end = os.pipe()
        interpreter = Interpreter()
        interpreter.execute(START.format(path=sys.path, file=other_end, number=number))
        all_used.wait()
        interpreter.execute(CHECK.format(number))
        places = os.read(end, 65536).split()
        interpreter.close()
        os.set_blocking(end, False)
        assert os.read(end, 1) == b""  # Nothing keeps the other end open.
        os.close(end)
        return places

    with ThreadPoolExecutor(INTERPRETERS) as pool:
        places = list(pool.map(live, range(INTERPRETERS)))
    assert len(set().union(*places)) == sum(map(len, places))


def main(rounds: str) -> int:
    """Go round so many times, beside a bound of the main interpreter."""
    budget = bounds.RunBudget(9, 9)
    share = budget.hold(3.0)
    for _ in range(int(rounds)):
        go_round()
    share.settle(None)
    assert budget == bounds.RunBudget(9, 9), budget
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
