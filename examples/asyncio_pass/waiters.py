"""The calls of one event loop that wait for room in one bound."""

from __future__ import annotations

import asyncio
from collections import OrderedDict
from contextlib import AbstractContextManager
from typing import Protocol

from engines import decision_bounds
from engines.decision_bounds import Share


class Call(Protocol):
    """A call that asks a bound for a share."""

    def attempt(self) -> Share:
        """Ask the bound, by the operation that would wait on a thread."""
        ...

    def alone(self) -> bool:
        """Whether the share that it last asked for is infinite, and so held beside no other."""
        ...

    def stopping(self) -> bool:
        """Whether its pass is to stop."""
        ...

    def left_s(self) -> float | None:
        """The seconds until its deadline, if it has one."""
        ...


class Waiter:
    """A call that found no room, and what its coroutine awaits before it looks again."""

    def __init__(self, call: Call, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self._call = call
        self._woken: asyncio.Future[None] = loop.create_future()

    async def sleep(self) -> None:
        """Return when the call is woken or its deadline has come."""
        left_s = self._call.left_s()
        alarm = None if left_s is None else self.loop.call_later(left_s, self.wake)
        try:
            await self._woken
        finally:
            if alarm is not None:
                alarm.cancel()
        self._woken = self.loop.create_future()

    def wake(self) -> None:
        """End the sleep, or the next one. Only the thread of the loop may call it."""
        if not self._woken.done():
            self._woken.set_result(None)

    def stops(self) -> bool:
        """Whether its wait is to end, with a stop or with the error of its stop function."""
        try:
            return self._call.stopping()
        except Exception:
            # When the call looks again it asks again, and raises this to its own caller.
            return True


class Waiters:
    """Wakes one call at each change of the bound, and the next when that one has found room.

    What a call would hold itself does not count when it is admitted. So where one finds no room no
    other does, and nobody else is woken. Only a call whose share is infinite asks for more, to be
    alone: it lets the others look as well.

    ``lock`` is the bound's. Whoever calls an operation holds it.
    """

    def __init__(self, lock: AbstractContextManager[bool]) -> None:
        self._lock = lock
        self._changes = 0
        # Each with the latest change that it has seen; one that a change has woken is not among
        # them. Behind an infinite one that has seen the latest change all others have seen it too.
        self._asleep: OrderedDict[Waiter, int] = OrderedDict()
        self._polling = False

    def changed(self) -> None:
        """Let calls look again, since something was given back or counted."""
        self._changes += 1
        self._wake_first()

    def empty(self) -> bool:
        """Whether none of them sleeps."""
        return not self._asleep

    def join(self, waiter: Waiter) -> None:
        """Let ``waiter``, which has found no room, sleep at the back."""
        self._asleep[waiter] = self._changes
        self._poll_later(waiter.loop)

    def rejoin(self, waiter: Waiter, alone: bool) -> None:
        """Let ``waiter``, which has found no room again, sleep where it did before.

        One that must be ``alone`` goes to the back, and the next one looks.
        """
        woken_by_change = waiter not in self._asleep
        self.join(waiter)
        if alone:
            self._asleep.move_to_end(waiter)
            self._wake_first()
        elif woken_by_change:
            self._asleep.move_to_end(waiter, last=False)

    def leave(self, waiter: Waiter) -> None:
        """Forget ``waiter``, however its wait ended, and let the next one look."""
        self._asleep.pop(waiter, None)
        self._wake_first()

    def _wake_first(self) -> None:
        """Wake the first call, unless it has seen the latest change."""
        if not self._asleep:
            return
        waiter, seen = next(iter(self._asleep.items()))
        if seen != self._changes:
            self._asleep.pop(waiter, None)
            try:
                waiter.loop.call_soon_threadsafe(waiter.wake)
            except RuntimeError:
                # The loop is closed, so that none of these calls ever looks again.
                self._asleep.clear()

    def _poll_later(self, loop: asyncio.AbstractEventLoop) -> None:
        """Poll after the interval of the bounds, if that is not to come anyway."""
        if not self._polling:
            self._polling = True
            loop.call_later(decision_bounds._POLL_S, self._poll, loop)

    def _poll(self, loop: asyncio.AbstractEventLoop) -> None:
        """Wake the calls that are to stop, and the first, as a new day notifies nobody."""
        with self._lock:
            self._polling = False
            if self._asleep:
                self._poll_later(loop)
            for waiter in list(self._asleep):
                if waiter.stops():
                    waiter.wake()
            self.changed()
