"""The table of the races, and what they are made of.

All amounts are such that their sums are exact in any order.
"""

from __future__ import annotations

import itertools
from collections.abc import Callable, Iterable
from contextlib import suppress
from typing import Any

from tests.hammer.threads import Race
from tests.module.support import Reply, admit, bounds, extension_only

REPLY = Reply(False, 2, 0.25)
ROOM = 10**15
RACES: dict[str, Race] = {}
# A test that is skipped on the plain twin says so in an attribute.
is_plain = getattr(extension_only(lambda: None), "__unittest_skip__", False)


def race(prepare: Race) -> Race:
    """Enter a race in the table."""
    RACES[prepare.__name__] = prepare
    return prepare


def wide_budget(**fields: Any) -> Any:
    """A budget that refuses no call and lets none wait."""
    return bounds.RunBudget(ROOM, ROOM, **fields)


def pay(budget: Any) -> None:
    budget.reserve(2)
    budget.charge(REPLY, 2)


def pay_by_share(budget: Any, spend: Any) -> None:
    with budget.hold(2) as of_pass, admit(spend, 0.25) as of_day:
        of_pass.settle(REPLY)
        of_day.settle(REPLY)


def give_up(budget: Any) -> None:
    with budget.hold(2):
        pass


def assert_counted(paid: int, budget: Any, spend: Any = None) -> None:
    """So many calls were paid, and none is in flight."""
    assert budget.in_flight == 0 and budget._held_tokens == bounds._Held(), vars_of(budget)
    assert (budget.calls, budget.input_tokens, budget.cost) == (paid, 2 * paid, 0.25 * paid), paid
    if spend is not None:
        assert spend.spent() == 0.25 * paid and spend._held == bounds._Held(), paid


def vars_of(budget: Any) -> tuple[Any, ...]:
    return budget, budget.in_flight, budget._held_tokens


def in_turn(action: Callable[[Any], object], values: Iterable[Any]) -> Callable[[], object]:
    """An action that is done with the next of the values each time, from the start after the last."""
    endless = itertools.cycle(values)
    return lambda: action(next(endless))


def tolerant(*errors: type[Exception]) -> Callable[[Callable[[], object]], Callable[[], None]]:
    """Makes an action that may fail with these errors."""

    def wrap(action: Callable[[], object]) -> Callable[[], None]:
        def attempt() -> None:
            with suppress(*errors):
                action()

        return attempt

    return wrap
