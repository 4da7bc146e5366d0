"""The bounds as coroutines enter them: ``async with hold(...)`` and ``async with admit(...)``."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Callable, TypeVar

from engines.decision_bounds import DailySpend, RunBudget, Share

from .condition import LoopCondition
from .waiters import Call

_Bound = TypeVar("_Bound", RunBudget, DailySpend)


def open_to_loops(bound: _Bound) -> _Bound:
    """Let coroutines wait for room in ``bound``, beside threads; called before the bound is used."""
    setattr(bound, "_changed", LoopCondition())
    return bound


def hold(budget: RunBudget, tokens: float) -> Admission:
    """Hold a call slot and ``tokens`` of ``budget``, as its operation of that name does."""
    return Admission(budget, _OfPass(budget, tokens))


def admit(
    spend: DailySpend,
    bound: Callable[[], float],
    *,
    deadline: float | None,
    clock: Callable[[], float],
    stopping: Callable[[], bool],
) -> Admission:
    """Hold ``bound()`` USD of the cap of ``spend``, as its operation of that name does."""
    return Admission(spend, _OfDay(spend, bound, deadline, clock, stopping))


class Admission:
    """What a coroutine enters once there is room, to hold a share until it leaves.

    Entering raises what the bound's own operation does. Before it is entered nothing is asked for.
    """

    def __init__(self, bound: RunBudget | DailySpend, call: Call) -> None:
        condition = getattr(bound, "_changed")
        if not isinstance(condition, LoopCondition):
            raise TypeError("coroutines enter a bound only after open_to_loops(bound)")
        self._condition = condition
        self._call = call

    async def __aenter__(self) -> Share:
        self._share = await self._condition.admitted(self._call)
        return self._share

    async def __aexit__(self, *_exc: object) -> None:
        self._share.settle(None)


@dataclass
class _OfPass:
    """A call that asks for a share of a pass's budget."""

    budget: RunBudget
    tokens: float

    def attempt(self) -> Share:
        return self.budget.hold(self.tokens)

    def alone(self) -> bool:
        return math.isinf(self.tokens)

    def stopping(self) -> bool:
        return self.budget.stopping()

    def left_s(self) -> float | None:
        return None


@dataclass
class _OfDay:
    """A call that asks for a share of the daily cap."""

    spend: DailySpend
    bound: Callable[[], float]
    deadline: float | None
    clock: Callable[[], float]
    stopping: Callable[[], bool]
    asked_usd: float = 0.0

    def attempt(self) -> Share:
        return self.spend.admit(
            self._ask, deadline=self.deadline, clock=self.clock, stopping=self.stopping
        )

    def alone(self) -> bool:
        return math.isinf(self.asked_usd)

    def left_s(self) -> float | None:
        return None if self.deadline is None else self.deadline - self.clock()

    def _ask(self) -> float:
        self.asked_usd = self.bound()
        return self.asked_usd
