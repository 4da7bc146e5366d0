"""Calls of every kind through many threads, and the books after them.

    PYTHONPATH=build/release python -m tests.faults.long_run CALLS

The exit status is 1 where a call was lost: what was settled, released, refused, stopped or late is
what was asked for, the bounds count what was settled, nothing is held, and no memory has grown.
"""

from __future__ import annotations

import gc
import math
import random
import resource
import sys
import threading
import time
from collections import Counter
from typing import Any

from tests.module.support import Reply, account, bounds

THREADS = 16
# Paid replies use no tokens, so that the room in the pass stays as small as it is, and calls wait.
PAID, CACHED = Reply(False, 0, 0.25), Reply(True)
TOKENS = 8.0
PAID_CALLS = 0.35  # Of all; some more would be paid if they were not refused.
# What the second half of the calls may leave allocated, and by what it may raise the most memory.
MOST_BLOCKS_MORE = 1000
MOST_MORE_KB = 8192
UNITS_OF_A_KB = 1024 if sys.platform == "darwin" else 1  # Of `ru_maxrss`.


class Boom(Exception):
    """Ends a call in flight."""


class Run:
    """One pass and one account under all the calls."""

    def __init__(self, calls: int) -> None:
        self.calls = calls
        slots = int(calls * PAID_CALLS)
        self.budget = bounds.RunBudget(slots, TOKENS, should_stop=self.is_stopped)
        self.spend = account(cap=math.inf)
        self.ends: list[Counter[str]] = []
        self._now = threading.local()

    def is_stopped(self) -> bool:
        return bool(getattr(self._now, "stopped", False))

    def call(self, dice: random.Random) -> str:
        """Make one call with a random end, and tell which."""
        self._now.stopped = dice.random() < 0.05
        share, usd = dice.choice((0.5, 1.0, TOKENS)), dice.choice((1.0, 1.0, 1.0, math.inf))
        late: Any = {"deadline": 0.0, "clock": lambda: 1.0, "stopping": self.is_stopped}
        waits: Any = {"deadline": None, "clock": None, "stopping": bounds.never}
        ask = late if dice.random() < 0.5 else waits
        try:
            with self.budget.hold(share) as slot, self.spend.admit(lambda: usd, **ask) as paid:
                # Others go on; without a global lock they would hardly ever meet in a shorter time.
                time.sleep(1e-3 if dice.random() < 0.01 else 1e-6)
                if dice.random() < 0.1:
                    raise Boom
                reply = dice.choice((PAID, PAID, PAID, CACHED, None))
                slot.settle(reply)
                paid.settle(None if reply is CACHED else reply)
                if reply is CACHED:
                    self.budget.release(share)
                    return "hit"
                return "released" if reply is None else "settled"
        except Boom:
            return "released"
        except bounds.DecisionError as error:
            return type(error).__name__

    def work(self, number: int) -> None:
        """Make one thread's part of the calls."""
        dice, ends = random.Random(number), Counter[str]()
        for _ in range(self.calls // THREADS):
            ends[self.call(dice)] += 1
        self.ends.append(ends)

    def faults(self) -> list[str]:
        """Make all the calls, and tell what is wrong after them."""
        threads = [threading.Thread(target=self.work, args=(number,)) for number in range(THREADS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        ends = sum(self.ends, Counter[str]())
        print(dict(ends))
        settled = ends["settled"]
        counted = self.budget.calls, self.budget.cache_hits
        held = self.budget.in_flight, self.budget._held_tokens, self.spend._held
        checks = {
            "an end is missing": len(ends) == 6,
            "a call is lost": ends.total() == self.calls // THREADS * THREADS,
            "not counted": counted == (settled, ends["hit"]),
            "not paid": self.budget.cost == self.spend.spent() == settled * PAID.cost,
            "something is held": held == (0, bounds._Held(), bounds._Held()),
            "a lock is taken": not self.budget._changed._is_owned(),
        }
        return [fault for fault, is_right in checks.items() if not is_right]


def main(calls: str) -> int:
    """Make the calls in two halves; the second must not leave more memory than the first."""
    sys.setswitchinterval(1e-4)
    blocks, most_kb, faults = [], [], []
    started = time.monotonic()
    for _ in range(2):
        faults += Run(int(calls) // 2).faults()
        gc.collect()
        blocks.append(sys.getallocatedblocks())
        most_kb.append(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss // UNITS_OF_A_KB)
    more, more_kb = blocks[1] - blocks[0], most_kb[1] - most_kb[0]
    print(
        f"{time.monotonic() - started:.1f} s; the second half left {more} blocks, {more_kb} kB more"
    )
    # A sanitizer's allocator, of which the interpreter counts no blocks, keeps what is freed.
    if blocks[1] > 0 and (more > MOST_BLOCKS_MORE or more_kb > MOST_MORE_KB):
        faults.append("memory has grown")
    print(*faults, sep="\n")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
