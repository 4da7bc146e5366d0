"""What the bounds cost on an event loop: with room, while calls wait, and as they are admitted."""

from __future__ import annotations

import asyncio
import time
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import subjects

_WAITING = (1_000, 10_000)
_CALLS = 1_000
_CALL_S, _AT_ONCE = 0.01, 100


def report(build: Path, quick: bool) -> str:
    """The tables of the cost with room, and of calls that wait."""
    bounds = subjects.module(build)
    # Not before, since it uses the module that is imported at that time.
    from examples.asyncio_pass import admission, heartbeat

    thread_us = loop_us = float("inf")
    for _ in range(5 if quick else 50):
        thread_us = min(thread_us, _thread_us(bounds))
        loop_us = min(loop_us, asyncio.run(_loop_us(bounds, admission)))
    cost = subjects.table(
        "Both bounds entered and settled where there is room: µs",
        ["on a thread", "on a loop", "times"],
        [[f"{thread_us:.1f}", f"{loop_us:.1f}", f"{loop_us / thread_us:.1f}"]],
    )
    lines = []
    for count in _WAITING[: 1 if quick else None]:
        idle = asyncio.run(_idle_share(bounds, admission, count))
        took_s, work_s = asyncio.run(_admit_all(bounds, admission, heartbeat, count))
        ideal_s = count / _AT_ONCE * _CALL_S
        lines.append(
            [f"{count:,}", f"{100 * idle:.1f} %", f"{took_s / ideal_s:.2f}", f"{1000 * work_s:.1f}"]
        )
    return cost + subjects.table(
        "Waiting coroutines: the share of a core that they take while none is admitted; then the"
        f" time until all are through, {_AT_ONCE} at once with calls of {1000 * _CALL_S:.0f} ms,"
        " times the calls' own; and the most ms that the loop worked without a pause",
        ["waiting", "of a core", "times", "ms of work"],
        lines,
    )


def _waits(bounds: ModuleType) -> dict[str, Any]:
    return {"deadline": None, "clock": time.monotonic, "stopping": bounds.never}


def _thread_us(bounds: ModuleType) -> float:
    budget, spend, waits = subjects.budget(bounds), subjects.spend(bounds), _waits(bounds)
    reply = subjects.Reply()
    start = time.perf_counter()
    for _ in range(_CALLS):
        with budget.hold(1.0) as tokens, spend.admit(lambda: 0.05, **waits) as usd:
            tokens.settle(reply)
            usd.settle(reply)
    return (time.perf_counter() - start) / _CALLS * 1e6


async def _loop_us(bounds: ModuleType, admission: ModuleType) -> float:
    budget = admission.open_to_loops(subjects.budget(bounds))
    spend = admission.open_to_loops(subjects.spend(bounds))
    waits, reply = _waits(bounds), subjects.Reply()
    hold, admit = admission.hold, admission.admit
    start = time.perf_counter()
    for _ in range(_CALLS):
        async with hold(budget, 1.0) as tokens, admit(spend, lambda: 0.05, **waits) as usd:
            tokens.settle(reply)
            usd.settle(reply)
    return (time.perf_counter() - start) / _CALLS * 1e6


async def _idle_share(bounds: ModuleType, admission: ModuleType, count: int) -> float:
    """The share of a core that so many calls take that wait for a call that does not end."""
    spend = admission.open_to_loops(subjects.spend(bounds, 1.0))

    async def call() -> None:
        async with admission.admit(spend, lambda: 1.0, **_waits(bounds)):
            await asyncio.sleep(60)

    calls = [asyncio.create_task(call()) for _ in range(count)]
    await asyncio.sleep(0.3)
    start_s, used_s = time.perf_counter(), time.process_time()
    await asyncio.sleep(1)
    share = (time.process_time() - used_s) / (time.perf_counter() - start_s)
    for each in calls:
        each.cancel()
    await asyncio.gather(*calls, return_exceptions=True)
    return share


async def _admit_all(
    bounds: ModuleType, admission: ModuleType, heartbeat: ModuleType, count: int
) -> tuple[float, float]:
    """The seconds until so many waiting calls are through, and the longest work of the loop."""
    spend = admission.open_to_loops(subjects.spend(bounds, 1.0))
    free = subjects.Reply(cost=0.0)

    async def call() -> None:
        async with admission.admit(spend, lambda: 1.0 / _AT_ONCE, **_waits(bounds)) as usd:
            await asyncio.sleep(_CALL_S)
            usd.settle(free)

    # Held, so that all wait when the time begins.
    async with admission.admit(spend, lambda: 1.0, **_waits(bounds)):
        calls = [asyncio.create_task(call()) for _ in range(count)]
        await asyncio.sleep(0.3)
    start = time.perf_counter()
    async with heartbeat.Heartbeat() as beat:
        await asyncio.gather(*calls)
        return time.perf_counter() - start, beat.longest_work_s
