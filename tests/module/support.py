"""What the tests of the module share: replies, accounts, conditions, threads and module copies."""

from __future__ import annotations

import importlib.util
import sys
import threading
import unittest
from collections.abc import Callable
from dataclasses import dataclass
from functools import partial
from importlib.machinery import EXTENSION_SUFFIXES
from types import ModuleType
from typing import Any
from unittest import mock

from engines import decision_bounds as bounds

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
        self._reply, self._failing, self._error = reply, failing, error

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
        self._asleep, self._swallows = asleep, swallows

    def __enter__(self) -> None:
        self.calls.append("enter")

    def __exit__(self, kind: Any, error: Any, _traceback: Any) -> bool:
        self.calls.append("exit" if error is None else ("exit", kind, error))
        return self._swallows

    def wait(self, timeout: float, /) -> None:
        self.calls.append(("wait", timeout))
        self._asleep()

    def notify_all(self) -> None:
        self.calls.append("notify_all")


class Background(threading.Thread):
    """A call on a thread of its own, started at once; ``result`` waits for its answer or error."""

    def __init__(self, function: Callable[..., Any], *args: Any) -> None:
        super().__init__(daemon=True)
        self._call = partial(function, *args)
        self.outcome = mock.Mock(side_effect=AssertionError("the call does not end"))
        self.start()

    def run(self) -> None:
        try:
            self.outcome = mock.Mock(return_value=self._call())
        except BaseException as error:
            self.outcome = mock.Mock(side_effect=error)

    def result(self) -> Any:
        self.join(PATIENCE_S)
        return self.outcome()


def is_free(lock: Any) -> bool:
    """Whether another thread can take ``lock`` (and give it up again) at once."""
    return Background(lambda: lock.acquire(blocking=False) and lock.release() is None).result()


def account(cap: Any = 5.0, today: Any = lambda: TODAY, ledger: Any = None) -> bounds.DailySpend:
    """An account with the same date for ever and no ledger, where nothing else is said."""
    return bounds.DailySpend(cap, today, ledger)


def admit(spend: bounds.DailySpend, usd: Any = 1.0, bound: Any = None, **waits: Any) -> Any:
    """Admit a call that may cost ``usd``, or what ``bound`` answers; without a stop or deadline."""
    waits = {"deadline": None, "clock": None, "stopping": bounds.never} | waits
    return spend.admit(bound or (lambda: usd), **waits)


def load_copy(name: str) -> ModuleType:
    """Load the module's file once more as ``name``, and leave the loaded modules as they were."""
    found = importlib.util.spec_from_file_location(name, bounds.__file__)
    module = importlib.util.module_from_spec(found)
    with mock.patch.dict(sys.modules, {name: module}):
        found.loader.exec_module(module)
    return module
