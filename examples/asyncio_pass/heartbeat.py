"""How long an event loop stands still."""

from __future__ import annotations

import asyncio
import time

_BEAT_S = 0.001


class Heartbeat:
    """Beats on the running loop while its ``async with`` block lasts; ``longest_s`` is how late the
    latest beat of all came."""

    longest_s = 0.0

    async def __aenter__(self) -> Heartbeat:
        self._task = asyncio.create_task(self._beat())
        return self

    async def __aexit__(self, *_exc: object) -> None:
        self._task.cancel()

    async def _beat(self) -> None:
        due = time.monotonic()
        while True:
            due = max(due, time.monotonic()) + _BEAT_S
            await asyncio.sleep(due - time.monotonic())
            self.longest_s = max(self.longest_s, time.monotonic() - due)
