"""Threads that fall upon the same objects at once, over and over, until their time is up."""

from __future__ import annotations

import faulthandler
import sys
import threading
import time
from collections.abc import Callable, Generator, Sequence
from contextlib import contextmanager
from typing import Any

_PATIENCE_S = 60.0

# A race sets up its objects and yields what each thread is to do, over and over. It is sent how
# often each thread did it, when all have ended, and then asserts what must hold.
Race = Callable[[], Generator[Sequence[Callable[[], object]], list[int], None]]


@contextmanager
def frequent_switches() -> Any:
    """Where a global lock keeps the threads apart, they change places as often as they can."""
    interval_s = sys.getswitchinterval()
    sys.setswitchinterval(1e-6)
    try:
        yield
    finally:
        sys.setswitchinterval(interval_s)


def run(race: Race, seconds: float) -> int:
    """Run the race for so many seconds and return how often its threads did their work.

    Raises what one of the threads raised, or ``AssertionError`` where they do not end or what must
    hold at the end does not.
    """
    steps = race()
    actions = next(steps)
    counts = [0] * len(actions)
    errors: list[BaseException] = []
    start = threading.Barrier(len(actions))
    end = time.monotonic() + seconds

    def work(place: int) -> None:
        action = actions[place]
        try:
            start.wait()
            while not errors and (counts[place] == 0 or time.monotonic() < end):
                action()
                counts[place] += 1
        except BaseException as error:
            errors.append(error)

    threads = [threading.Thread(target=work, args=(n,), daemon=True) for n in range(len(actions))]
    with frequent_switches():
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(seconds + _PATIENCE_S)
    if any(thread.is_alive() for thread in threads):
        faulthandler.dump_traceback()
        raise AssertionError("the threads do not end")
    if errors:
        raise errors[0]
    try:
        steps.send(counts)
    except StopIteration:
        return sum(counts)
    raise AssertionError("a race yields once")
