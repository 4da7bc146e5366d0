"""Threads that call, settle, read, wait and collect at once: nothing is lost or counted twice."""

from __future__ import annotations

import copy
import gc
import itertools
import threading
import weakref
from collections.abc import Callable
from typing import Any

from tests.hammer.table import (
    REPLY,
    ROOM,
    assert_counted,
    give_up,
    in_turn,
    is_plain,
    pay,
    pay_by_share,
    race,
    tolerant,
    wide_budget,
)
from tests.module.support import Reply, account, admit, bounds


@race
def calls_and_looks() -> Any:
    budget, spend, untouched = wide_budget(), account(1e12), wide_budget()

    def look() -> None:
        calls, tokens, cost = budget.calls, budget.input_tokens, budget.cost
        assert (type(calls), type(tokens), type(cost)) == (int, int, float)
        assert tokens % 2 == 0 and cost % 0.25 == 0 and 0 <= budget._held_tokens.holders <= 3
        assert copy.copy(budget)._changed is budget._changed
        assert repr(budget).startswith("RunBudget(max_calls=")
        assert spend._cost % 0.25 == 0 and copy.copy(spend)._cap == 1e12
        assert budget != untouched or budget.summary()["max_calls"] == ROOM

    paid = yield [
        *(lambda: pay(budget), lambda: give_up(budget)),
        *(lambda: pay_by_share(budget, spend), look),
    ]
    assert budget.calls == paid[0] + paid[2] and spend.spent() == 0.25 * paid[2]
    assert_counted(paid[0] + paid[2], budget)


def shares(*others: Callable[[Any], object]) -> Any:
    """One thread makes shares and settles them, another settles the newest at the same time."""
    budget, spend, given_back = wide_budget(), account(1e12), itertools.count()
    newest = [bounds.Share()]

    def make(share: Callable[[], Any]) -> None:
        newest[0] = made = share()
        made.settle(REPLY)

    kinds = (
        *(lambda: budget.hold(2), lambda: admit(spend, 0.25)),
        lambda: bounds.Share(lambda _reply: next(given_back)),
    )
    made = yield [
        *(in_turn(make, kinds), lambda: newest[0].settle(REPLY)),
        *(lambda other=other: other(newest[0]) for other in others),
    ]
    paid = [(made[0] + 2) // 3, (made[0] + 1) // 3, made[0] // 3]
    assert_counted(paid[0], budget)
    assert spend.spent() == 0.25 * paid[1] and spend._held == bounds._Held()
    assert next(given_back) == paid[2]


@race
def shares_settled() -> Any:
    return shares()


@race
def shares_settled_and_read() -> Any:
    def look(share: Any) -> None:
        give_back = share._give_back
        assert give_back is None or callable(give_back)

    return shares(look, gc.get_referents)


@race
def record_of_two_owners() -> Any:
    changed, held = threading.Condition(), bounds._Held()
    first, second = (wide_budget(_held_tokens=held, _changed=changed) for _ in range(2))

    def rebind() -> None:
        first._held_tokens = second._held_tokens
        assert copy.copy(held).holders <= 2 and held.amount in (0, 2, 4)

    paid = yield [lambda: pay(first), lambda: pay(second), rebind, lambda: repr(held)]
    assert_counted(paid[0], first)
    assert_counted(paid[1], second)


@race
def records_used_directly() -> Any:
    held, charges, sizes = bounds._Held(), bounds._Charges(), itertools.count(1)

    def take() -> None:
        held.take(2.0)
        held.admits(2.0, held.amount, 1e15)
        held.give_back(2.0)

    def learn() -> None:
        charge = float(next(sizes))
        charges.learn(1, charge)
        # In plain Python, what one thread learned another may undo.
        assert charges.bound(1) >= charge or is_plain

    learned = yield [take, take, learn, learn]
    assert is_plain or (held, charges.per_call) == (bounds._Held(), sum(learned[2:]))


@race
def rates_learned() -> Any:
    rates, sizes = bounds.RequestRates(), itertools.count(1)

    def learn() -> None:
        size = next(sizes)
        rates.learn(size, str(size % 7), Reply(False, 2 * size, 0.25 * size))

    def ask() -> None:
        assert rates.tokens(1) >= 2 and rates.cost(1, "none") == float("inf")
        assert copy.copy(rates)._features is rates._features

    rates.learn(1, "first", Reply(False, 2, 0.25))
    learned = yield [learn, learn, ask, lambda: setattr(rates, "_cost", rates._cost)]
    dearest = sum(learned[:2])
    assert rates._cost == bounds._Charges(0.25, max(1, dearest) * 0.25)
    assert rates._tokens == bounds._Charges(2.0, max(1, dearest) * 2)


@race
def collected() -> Any:
    budget = wide_budget()
    newest = [weakref.ref(budget)]

    def use() -> None:
        if alive := newest[0]():
            give_up(alive)

    def replace() -> None:
        made = wide_budget()
        made.cycle = made, made.hold(2)
        made.cycle[1].settle(None)
        newest[0] = weakref.ref(made)

    yield [use, use, replace, gc.collect]
    gc.collect()
    assert newest[0]() is None and weakref.ref(budget)() is budget


@race
def waits() -> Any:
    stopped, interval_s = [False], bounds._POLL_S
    budget = bounds.RunBudget(ROOM, 2, should_stop=lambda: stopped[0])
    spend = account(0.25)

    @tolerant(bounds.DecisionStopped)
    def hold() -> None:
        give_up(budget)

    @tolerant(bounds.DecisionStopped, bounds.DecisionTimeout)
    def run_out() -> None:
        with admit(spend, deadline=0.0, clock=lambda: 0.0, stopping=budget.stopping):
            give_up(budget)

    def stop(poll_s: float) -> None:
        bounds._POLL_S = poll_s
        stopped[0] = not stopped[0]

    yield [hold, hold, run_out, run_out, in_turn(stop, [0.001, 0.0005])]
    bounds._POLL_S = interval_s
    assert_counted(0, budget, spend)


@race
def days_that_move() -> Any:
    asked, begun = itertools.count(), list[str]()

    def paid_since(day: str) -> float:
        begun.append(day)
        return 0.0

    spend = account(1e12, lambda: str(next(asked) // 9), paid_since)

    def pay_today() -> None:
        admit(spend, 0.25).settle(REPLY)

    yield [pay_today, pay_today, lambda: spend.charge(REPLY), lambda: (spend._day, spend._cost)]
    assert spend._held == bounds._Held()
    assert begun == sorted(set(begun), key=int), "a day was begun twice"
