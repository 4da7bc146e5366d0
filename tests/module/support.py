"""What the tests of the module share: replies, accounts, conditions, threads and module copies."""

from __future__ import annotations

import importlib.util
import sys
import threading
import time
import unittest
from collections.abc import Callable
from concurrent.futures import Future
from dataclasses import dataclass
from functools import partial
from importlib.machinery import EXTENSION_SUFFIXES
from types import ModuleType
from typing import Any
from unittest import mock

# Any type: the tests reach for private fields, and hand in what a type checker would refuse.
bounds: Any = importlib.import_module("engines.decision_bounds")

# The folder of the sources has the name of the module, so it is found where the module is missing.
if getattr(bounds, "__file__", None) is None:
    raise ImportError("engines.decision_bounds is on no folder of PYTHONPATH")

extension_only = unittest.skipUnless(
    bounds.__file__.endswith(tuple(EXTENSION_SUFFIXES)), "holds for the built module only"
)
TODAY = "2024-05-01"
PATIENCE_S = 30.0


class Boom(BaseException):
    """An error that nothing but a test raises or catches."""


@dataclass
class Reply:
    """A reply of the endpoint with values of any type; an untrue object that is not none."""

    cached: Any = False
    input_tokens: Any = 0
    cost: Any = 0.0

    def __bool__(self) -> bool:
        return False


class LoggedReply:
    """A reply that notes which property is read, and raises ``error`` at the one ``failing``."""

    def __init__(self, reply: Reply, failing: str = "", error: BaseException = Boom()) -> None:
        self.reads: list[str] = []
        self._reply = reply
        self._failing = failing
        self._error = error

    def __getattr__(self, name: str) -> Any:
        self.reads.append(name)
        if name == self._failing:
            raise self._error
        return getattr(self._reply, name)


class LoggedCondition:
    """A condition of the caller's own, without a lock, that notes in order what it is asked for.

    ``asleep`` runs in each wait; an error that leaves the condition ends there if it ``swallows``.
    """

    def __init__(self, asleep: Callable[[], object] = bounds.never, swallows: bool = False) -> None:
        self.calls: list[Any] = []
        self._asleep = asleep
        self._swallows = swallows

    def __enter__(self) -> None:
        self.calls.append("enter")

    def __exit__(self, kind: Any, error: Any, traceback: Any) -> bool:
        self.traceback = traceback
        self.calls.append("exit" if error is None else ("exit", kind, error))
        return self._swallows

    def wait(self, timeout: float, /) -> None:
        self.calls.append(("wait", timeout))
        self._asleep()

    def notify_all(self) -> None:
        self.calls.append("notify_all")


class Background(threading.Thread):
    """A call on a thread of its own, started at once."""

    def __init__(self, function: Callable[..., Any], *args: Any) -> None:
        super().__init__(daemon=True)
        self._call = partial(function, *args)
        self._outcome: Future[Any] = Future()
        self.start()

    def run(self) -> None:
        try:
            self._outcome.set_result(self._call())
        except BaseException as error:
            self._outcome.set_exception(error)

    def result(self) -> Any:
        """Return what the call answers, or raise what it raises."""
        return self._outcome.result(PATIENCE_S)


def wait_until(condition: Callable[[], bool]) -> None:
    """Return once ``condition`` holds. Raises ``AssertionError`` after ``PATIENCE_S`` seconds."""
    end = time.monotonic() + PATIENCE_S
    while not condition():
        if time.monotonic() >= end:
            raise AssertionError("what the test waits for does not come")
        time.sleep(0.001)


def is_free(lock: Any) -> bool:
    """Return whether another thread can take ``lock`` (and give it up again) at once."""

    def take() -> bool:
        taken = bool(lock.acquire(blocking=False))
        if taken:
            lock.release()
        return taken

    return bool(Background(take).result())


def full_budget() -> Any:
    """Return a budget of 9 calls and 9 tokens, where a call in flight holds all the tokens."""
    return bounds.RunBudget(9, 9, _held_tokens=bounds._Held(1, 9.0))


def account(cap: Any = 5.0, today: Any = lambda: TODAY, ledger: Any = None) -> Any:
    """Return an account with the same date for ever and no ledger, where nothing else is said."""
    return bounds.DailySpend(cap, today, ledger)


def admit(spend: Any, usd: Any = 1.0, bound: Any = None, **waits: Any) -> Any:
    """Admit a call that may cost ``usd``, or what ``bound`` answers; without a stop or deadline."""
    waits = {"deadline": None, "clock": None, "stopping": bounds.never} | waits
    return spend.admit(bound or (lambda: usd), **waits)


def load_copy(name: str) -> Any:
    """Load the module's file once more as ``name``, and leave the loaded modules as they were."""
    found = importlib.util.spec_from_file_location(name, bounds.__file__)
    assert found and found.loader
    module: ModuleType = importlib.util.module_from_spec(found)
    with mock.patch.dict(sys.modules, {name: module}):
        found.loader.exec_module(module)
    return module
