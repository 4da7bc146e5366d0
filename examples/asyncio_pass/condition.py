"""The condition of a bound on which threads and the coroutines of any event loops wait together."""

from __future__ import annotations

import asyncio
import threading

from engines.decision_bounds import Share

from .waiters import Call, Waiter, Waiters


class NoRoom(Exception):
    """An attempt found no room, and holds nothing."""


class LoopCondition(threading.Condition):
    """A condition to be set as the ``_changed`` of a bound before the bound is used."""

    def __init__(self) -> None:
        super().__init__()
        self._attempting = False
        self._by_loop: dict[asyncio.AbstractEventLoop, Waiters] = {}

    def wait(self, timeout: float | None = None) -> bool:
        """Wait as a condition does.

        Raises ``NoRoom`` instead during an attempt, and ``RuntimeError`` on any other thread that
        runs an event loop, which would stand still.
        """
        if self._attempting:
            raise NoRoom
        if _runs_loop():
            raise RuntimeError("a wait for room would stop the event loop: use async with")
        return super().wait(timeout)

    def notify_all(self) -> None:
        """Wake the threads that wait, and the coroutines as far as there is room for them."""
        super().notify_all()
        for loop, waiters in list(self._by_loop.items()):
            waiters.changed()
            if waiters.empty():
                del self._by_loop[loop]

    async def admitted(self, call: Call) -> Share:
        """Return the share of ``call`` as soon as there is room for it.

        Raises what its attempts raise. Where that or a cancellation ends the wait nothing is held.
        """
        # The lock is held from an attempt until the call is among the waiters: a change between the
        # two would wake nobody. No wait comes after the attempt that takes the share, so that no
        # cancellation can lose it.
        with self:
            try:
                return self._attempt(call)
            except NoRoom:
                waiter = Waiter(call, asyncio.get_running_loop())
                waiters = self._by_loop.setdefault(waiter.loop, Waiters(self))
                waiters.join(waiter)
        try:
            while True:
                await waiter.sleep()
                with self:
                    try:
                        return self._attempt(call)
                    except NoRoom:
                        # They are forgotten while all of them are awake.
                        waiters = self._by_loop.setdefault(waiter.loop, waiters)
                        waiters.rejoin(waiter, call.alone())
        finally:
            with self:
                waiters.leave(waiter)

    def _attempt(self, call: Call) -> Share:
        """Make one attempt, which raises ``NoRoom`` where it would wait. The lock is held."""
        try:
            self._attempting = True
            return call.attempt()
        finally:
            self._attempting = False


def _runs_loop() -> bool:
    """Whether this thread runs an event loop."""
    try:
        asyncio.get_running_loop()
    except RuntimeError:
        return False
    return True
