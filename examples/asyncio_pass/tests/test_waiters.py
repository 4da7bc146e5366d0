"""The waiters of an event loop, by what they ask of it."""

from __future__ import annotations

import asyncio
import threading
import unittest
from functools import partial
from typing import Any, cast
from unittest import mock

from engines import decision_bounds

from ..waiters import Waiter, Waiters


class LoggedLoop:
    """An event loop that notes what it is to call."""

    def __init__(self) -> None:
        self.soon: list[Any] = []
        self.later: list[Any] = []
        self.alarm = mock.Mock()
        self.is_closed = False
        self.create_future = asyncio.get_running_loop().create_future

    def call_soon_threadsafe(self, function: Any) -> None:
        if self.is_closed:
            raise RuntimeError
        self.soon.append(function)

    def call_later(self, delay_s: float, function: Any, *arguments: Any) -> Any:
        self.later.append((delay_s, partial(function, *arguments)))
        return self.alarm


class WaitersTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self) -> None:
        self.loop = LoggedLoop()
        lock = threading.Condition()
        self.waiters = Waiters(lock)
        # The lock has to be held where it is asked to stop.
        call = mock.Mock(stopping=lock.notify, left_s=lambda: 1000.0)
        loop = cast(asyncio.AbstractEventLoop, self.loop)
        self.first, self.second = [Waiter(call, loop) for _ in range(2)]
        for waiter in (self.first, self.second):
            self.waiters.join(waiter)

    async def test_each_change_wakes_the_next(self) -> None:
        self.waiters.rejoin(self.second, alone=False)  # It looked without having been woken.
        self.waiters.changed()
        self.waiters.changed()
        self.assertEqual(self.loop.soon, [self.first.wake, self.second.wake])

    async def test_the_calls_of_a_closed_loop_are_forgotten(self) -> None:
        self.loop.is_closed = True
        self.waiters.changed()
        self.assertTrue(self.waiters.empty())

    async def test_one_poll_comes_after_another_while_calls_sleep(self) -> None:
        ((delay_s, poll),) = self.loop.later
        self.assertEqual(delay_s, decision_bounds._POLL_S)
        poll()
        self.assertEqual(self.loop.soon, [self.first.wake])
        self.assertFalse(self.first._woken.done())  # None is to stop, as was asked under the lock.
        self.waiters.leave(self.first)
        self.waiters.leave(self.second)
        self.assertEqual(len(self.loop.later), 2)
        self.loop.later[1][1]()
        self.assertEqual(len(self.loop.later), 2)

    async def test_a_wake_ends_the_next_sleep_and_its_alarm(self) -> None:
        self.first.wake()
        self.first.wake()
        await self.first.sleep()
        self.loop.alarm.cancel.assert_called_once_with()


if __name__ == "__main__":
    unittest.main()
