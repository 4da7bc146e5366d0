"""The bounds with a turnstile in front, as threads and as coroutines ask them."""

from __future__ import annotations

from contextlib import AbstractAsyncContextManager
from typing import Callable

from engines.decision_bounds import DailySpend, RunBudget, Share

from .turnstile import Turn, Turnstile


class BudgetInOrder:
    """A budget whose shares are held in the order in which they were asked for.

    That holds among all that ask here; ``budget`` itself serves for everything else.
    """

    def __init__(self, budget: RunBudget) -> None:
        self.budget = budget
        self.turnstile = Turnstile()

    def hold(self, tokens: float) -> Share:
        """Do what the budget's ``hold`` does, behind those who asked before."""
        with self.turnstile.turn(stopping=self.budget.stopping):
            return self.budget.hold(tokens)


class SpendInOrder:
    """A daily cap whose shares are admitted in the order in which they were asked for.

    That holds among all that ask here; ``spend`` itself serves for everything else.
    """

    def __init__(self, spend: DailySpend) -> None:
        self.spend = spend
        self.turnstile = Turnstile()

    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """Do what the cap's ``admit`` does, behind those who asked before."""
        with self.turnstile.turn(deadline=deadline, clock=clock, stopping=stopping):
            return self.spend.admit(bound, deadline=deadline, clock=clock, stopping=stopping)


class InTurn:
    """An ``admission`` of a coroutine to a bound, which it enters when its ``turn`` has come.

    The turn ends with the entering, whether the share was held or not.
    """

    def __init__(self, turn: Turn, admission: AbstractAsyncContextManager[Share]) -> None:
        self._turn = turn
        self._admission = admission

    async def __aenter__(self) -> Share:
        # Leaving the turn does not wait, so no cancellation comes between the share and the caller.
        async with self._turn:
            return await self._admission.__aenter__()

    async def __aexit__(self, *exc: object) -> bool | None:
        return await self._admission.__aexit__(*exc)  # type: ignore[arg-type]
