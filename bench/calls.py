"""Calls a second through real client libraries, within the bounds and without any guard.

Run in the environment of ``examples/clients``, as ``python -m bench.calls SLICES CALLS``; prints
the slices by library and way, as JSON: of each, without a guard and within the bounds, the calls a
second and the processor time of a call, in microseconds. The endpoint has a process of its own.
"""

from __future__ import annotations

import asyncio
import importlib
import json
import multiprocessing
import sys
import time
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from multiprocessing.connection import Connection
from typing import Any

from bench import subjects
from examples.clients.endpoint import Endpoint, Fate

_IN_FLIGHT = 16
_QUESTION = "Which desk is to answer this letter? " * 20

Slice = dict[str, float]

# Any type: the libraries are not there where types are checked.
support: Any = importlib.import_module("examples.clients.tests.support")
bounded: Any = importlib.import_module("examples.clients.bounded")
bounds: Any = importlib.import_module("engines.decision_bounds")


def _bare(library: Any, way: str, client: Any) -> Any:
    """Make the library's own call, which is to be awaited if it is made in a task."""
    request = library._request(_QUESTION)
    if library is support.openai_calls:
        return client.chat.completions.create(**request)
    if library is support.anthropic_calls:
        return client.messages.create(**request)
    if library is support.httpx_calls:
        return client.post(library.PATH, json=request)
    call = support.litellm.completion if way == "ask" else support.litellm.acompletion
    return call(**request | client)


def _measure(library: Any, way: str, url: str, slices: int, count: int) -> list[list[Slice]]:
    """The slices without a guard and within the bounds, in pairs."""
    held = bounded.PaidCalls(subjects.budget(bounds), subjects.spend(bounds))

    def pairs(client: Any) -> list[Callable[[], Any]]:
        ask = getattr(library, way)
        return [lambda: _bare(library, way, client), lambda: ask(client, held, _QUESTION)]

    def on_threads() -> Iterator[Slice]:
        with support.connect(library, url, way, support.PATIENCE_S) as client:
            for call in pairs(client) * (slices + 1):
                with ThreadPoolExecutor(_IN_FLIGHT) as threads, _timed(count) as timed:
                    for done in [threads.submit(call) for _ in range(count)]:
                        done.result()
                yield timed

    async def make_calls(call: Callable[[], Any]) -> None:
        for _ in range(count // _IN_FLIGHT):
            await call()

    async def in_tasks() -> list[Slice]:
        each = []
        async with support.connect(library, url, way, support.PATIENCE_S) as client:
            for call in pairs(client) * (slices + 1):
                with _timed(count) as timed:
                    await asyncio.gather(*(make_calls(call) for _ in range(_IN_FLIGHT)))
                each.append(timed)
        await support.close(library)
        return each

    each = list(on_threads()) if way == "ask" else asyncio.run(in_tasks())
    # The first pair of slices opens the connections.
    return [each[at : at + 2] for at in range(2, len(each), 2)]


@contextmanager
def _timed(count: int) -> Iterator[Slice]:
    """Time a block of so many calls: what it yields is filled in when the block ends."""
    timed: Slice = {}
    start_s, start_cpu_s = time.perf_counter(), time.process_time()
    yield timed
    timed["calls_s"] = count / (time.perf_counter() - start_s)
    timed["cpu_us"] = 1e6 * (time.process_time() - start_cpu_s) / count


def _serve(parent: Connection) -> None:
    """Answer all questions until the parent hangs up."""
    with Endpoint(lambda _: Fate.ANSWERED) as endpoint:
        parent.send(endpoint.url)
        parent.poll(None)


def main(slices: str, count: str) -> None:
    """Measure every library in both ways, and print the slices."""
    ours, theirs = multiprocessing.Pipe()
    server = multiprocessing.Process(target=_serve, args=(theirs,), daemon=True)
    server.start()
    url = ours.recv()
    measured = {
        f"{library.__name__.rpartition('.')[2].partition('_')[0]}, {in_flight}": _measure(
            library, way, url, int(slices), int(count)
        )
        for library in support.LIBRARIES
        for way, in_flight in (("ask", "threads"), ("ask_async", "tasks"))
    }
    ours.send("done")
    server.join()
    print(json.dumps(measured))


if __name__ == "__main__":
    main(*sys.argv[1:])
