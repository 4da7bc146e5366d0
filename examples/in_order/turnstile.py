"""A turnstile: threads and coroutines go through it one at a time, in the order in which they came."""

from __future__ import annotations

import asyncio
import threading
import time
from collections import OrderedDict
from typing import Any, Callable

from engines import decision_bounds
from engines.decision_bounds import never


class Turnstile:
    """A queue of callers of which the first has its turn, until it leaves.

    A caller has its turn while it waits for room in a bound; all that want room there come through
    the same turnstile. Whoever has a turn must not ask for another.
    """

    def __init__(self) -> None:
        # Reentrant, since the collector may end a forgotten coroutine's turn on a thread that has it.
        self._lock = threading.RLock()
        self._queue: OrderedDict[Turn, None] = OrderedDict()

    def turn(
        self,
        *,
        deadline: float | None = None,
        clock: Callable[[], float] = time.monotonic,
        stopping: Callable[[], bool] = never,
    ) -> Turn:
        """Return a turn, which is waited for when it is entered, not past ``deadline``."""
        return Turn(self, deadline, clock, stopping)

    def join(self, turn: Turn) -> bool:
        """Put ``turn`` at the back, and return whether it is the first and so has come."""
        with self._lock:
            self._queue[turn] = None
            return next(iter(self._queue)) is turn

    def leave(self, turn: Turn) -> None:
        """Remove ``turn``, if it is there, and call the one that is first then."""
        with self._lock:
            self._queue.pop(turn, None)
            while self._queue:
                first = next(iter(self._queue))
                try:
                    return first.call()
                except RuntimeError:
                    # The loop of its coroutine is closed: that one never takes its turn.
                    self._queue.pop(first, None)


class Turn:
    """What a thread enters with ``with``, and a coroutine with ``async with``, when it is first.

    Entering raises ``DecisionStopped`` and ``DecisionTimeout`` as a wait for room does, and looks
    for a stop as often. However it ends, an interrupt and a cancellation included, the next caller
    has its turn. Each is entered once.
    """

    def __init__(
        self,
        turnstile: Turnstile,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> None:
        self._turnstile = turnstile
        self._deadline = deadline
        self._clock = clock
        self._stopping = stopping
        self._wake: Callable[[], object] | None = None

    def call(self) -> None:
        """Say that the turn has come; it is said once. Raises ``RuntimeError`` on a closed loop."""
        # Once woken the caller is no longer referred to here, so that a coroutine that its loop
        # has forgotten can be collected, which ends its turn.
        wake, self._wake = self._wake, None
        if wake is not None:
            wake()

    def wait(self, changed: Any) -> None:
        """Wait once on ``changed``, as a call does for which a bound has no room."""
        decision_bounds._wait(changed, self._stopping, deadline=self._deadline, clock=self._clock)

    def __enter__(self) -> None:
        called = threading.Event()
        self._wake = called.set
        try:
            if not self._turnstile.join(self):
                while not called.is_set():
                    self.wait(called)
        except BaseException:
            self._turnstile.leave(self)
            raise

    def __exit__(self, *_exc: object) -> None:
        self._turnstile.leave(self)

    async def __aenter__(self) -> None:
        loop = asyncio.get_running_loop()
        called: asyncio.Future[None] = loop.create_future()
        self._wake = lambda: loop.call_soon_threadsafe(_complete, called)
        try:
            if not self._turnstile.join(self):
                polls = _Polls(self, called)
                try:
                    await called
                finally:
                    polls.stop()
        except BaseException:
            self._turnstile.leave(self)
            raise

    async def __aexit__(self, *_exc: object) -> None:
        self._turnstile.leave(self)


class _Polls:
    """Ends a coroutine's wait when it is to stop or is out of its deadline."""

    def __init__(self, turn: Turn, called: asyncio.Future[None]) -> None:
        self._turn = turn
        self._called = called
        self._next: asyncio.TimerHandle | None = None
        self._poll()

    def stop(self) -> None:
        """Ask no more."""
        if self._next is not None:
            self._next.cancel()

    def wait(self, timeout: float) -> None:
        """Poll again after ``timeout`` seconds, in which a thread would sleep."""
        self._next = self._called.get_loop().call_later(timeout, self._poll)

    def _poll(self) -> None:
        """Ask once, which sets the next poll or ends the wait with what is raised."""
        try:
            self._turn.wait(self)
        except Exception as error:
            if not self._called.done():
                self._called.set_exception(error)


def _complete(called: asyncio.Future[None]) -> None:
    """Complete ``called``, unless its wait has ended otherwise."""
    if not called.done():
        called.set_result(None)
