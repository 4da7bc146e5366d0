"""What the tests of the README share: the names of its programs, and calls on other threads."""

from __future__ import annotations

import threading
from collections.abc import Callable, Sequence
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any

from tests.readme.programs import FIRST, programs

# Without a global lock, 300 threads took 24 seconds to start at once on a busy machine.
PATIENCE_S = 300.0


def names(*headings: str) -> dict[str, Any]:
    """Return the names of the first program, new and not run, and of those under ``headings``."""
    found: dict[str, Any] = {"__name__": "program"}
    for heading in (FIRST, *headings):
        # The endpoint of these tests answers, but on a busy machine not always within a second.
        program = programs()[heading].replace("timeout=1.0", f"timeout={PATIENCE_S}")
        exec(compile(program, heading, "exec", dont_inherit=True), found)
    return found


def in_background(call: Callable[..., Any], *arguments: Any) -> Future[Any]:
    """Start a call on a thread of its own, which does not keep the interpreter from ending."""
    outcome: Future[Any] = Future()

    def run() -> None:
        try:
            outcome.set_result(call(*arguments))
        except BaseException as error:
            outcome.set_exception(error)

    threading.Thread(target=run, daemon=True).start()
    return outcome


def side_by_side(calls: Sequence[Callable[[], Any]]) -> list[Any]:
    """Start all calls at once, and return what each answers or raises."""
    ready = threading.Barrier(len(calls))

    def start(call: Callable[[], Any]) -> Any:
        ready.wait(PATIENCE_S)
        return call()

    with ThreadPoolExecutor(len(calls)) as pool:
        started = [pool.submit(start, call) for call in calls]
        return [each.exception(PATIENCE_S) or each.result() for each in started]
