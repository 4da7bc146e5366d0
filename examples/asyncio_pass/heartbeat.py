"""How long an event loop stands still."""

from __future__ import annotations

import asyncio
import time

_BEAT_S = 0.001


class Heartbeat:
    """Beats on the running loop, every millisecond, while its ``async with`` block lasts.

    ``latest_s`` is how late a beat came at most, and ``longest_work_s`` the most processor time that
    the thread of the loop used between two beats. Other processes delay a beat, but use none of it.
    """

    latest_s = 0.0
    longest_work_s = 0.0

    async def __aenter__(self) -> Heartbeat:
        self._task = asyncio.create_task(self._beat())
        return self

    async def __aexit__(self, *_exc: object) -> None:
        self._task.cancel()

    async def _beat(self) -> None:
        while True:
            due, used_s = time.monotonic() + _BEAT_S, time.thread_time()
            await asyncio.sleep(_BEAT_S)
            self.latest_s = max(self.latest_s, time.monotonic() - due)
            self.longest_work_s = max(self.longest_work_s, time.thread_time() - used_s)
