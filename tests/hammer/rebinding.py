"""Threads that call while others rebind or patch what the calls use."""

from __future__ import annotations

import threading
from functools import partial
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
from tests.module.support import TODAY, Reply, account, bounds


@race
def numbers_written() -> Any:
    budget = wide_budget()
    values = [ROOM, ROOM + 0.5, float("inf"), 10**30, ROOM + 2]
    texts = {repr(value) for value in values}

    def write(value: Any) -> None:
        budget.max_tokens = budget.max_calls = budget.note = value
        del budget.note

    def read() -> None:
        for value in (budget.max_tokens, budget.max_calls):
            # A value that is put together of two is neither of them.
            assert repr(value) in texts, value

    paid = yield [lambda: pay(budget), lambda: pay(budget), in_turn(write, values), read]
    assert_counted(paid[0] + paid[1], budget)


@race
def numbers_that_act() -> Any:
    class Usd(float):
        def __del__(self) -> None:
            budget.max_tokens = ROOM

        def __radd__(self, other: Any) -> Any:
            budget.max_calls = Usd(ROOM)
            return other + float(self)

    budget = wide_budget()
    reply = Reply(False, 2, Usd(0.25))

    def pay_usd() -> None:
        budget.reserve(2)
        budget.charge(reply, 2)

    @tolerant(AttributeError)
    def delete() -> None:
        budget.cache_hits = Usd(1)
        del budget.cache_hits

    paid = yield [pay_usd, pay_usd, delete, lambda: repr(budget.max_calls)]
    assert_counted(paid[0] + paid[1], budget)


@race
def condition_rebound() -> Any:
    conditions = [threading.Condition() for _ in range(3)]
    budget = wide_budget(_changed=conditions[0])

    # One thread alone pays: two would hold different locks. In plain Python the wake-all asks a
    # condition that was not entered, and is refused when all is counted.
    paid = yield [
        tolerant(RuntimeError)(lambda: pay(budget)),
        in_turn(lambda changed: setattr(budget, "_changed", changed), conditions),
        budget.exhausted,
        lambda: conditions.index(budget._changed),
    ]
    assert_counted(paid[0], budget)


@race
def inside_of_condition_replaced() -> Any:
    changed = threading.Condition()
    budget = wide_budget(_changed=changed)

    def replace() -> None:
        vars(changed)["_lock"] = threading.RLock()
        changed.__dict__ = dict(vars(threading.Condition()))

    # In plain Python the lock that is left may be another than was entered, which stays taken.
    operate = tolerant(RuntimeError)(lambda: (budget.release(2), budget.summary()))
    yield [replace, operate, lambda: vars(changed).get("_lock"), *([] if is_plain else [operate])]
    changed.__dict__ = vars(threading.Condition())
    assert_counted(0, budget)


@race
def give_back_rebound() -> Any:
    share = bounds.Share()

    def rebind() -> None:
        # Whoever takes a function out leaves none behind: it cannot be called twice.
        left = [None]
        share._give_back = lambda _reply: left.pop()

    yield [rebind, rebind, lambda: share.settle(None), lambda: share.settle(REPLY)]
    share.settle(None)
    assert share._give_back is None


@race
def callbacks_rebound() -> Any:
    budget, spend = wide_budget(), account(1e12)

    def rebind(ledger: Any) -> None:
        budget.should_stop = lambda: False
        spend._today = lambda: TODAY
        spend._ledger = ledger
        budget.should_stop = bounds.never

    paid = yield [
        *[partial(pay_by_share, budget, spend)] * 2,
        in_turn(rebind, [None, lambda _day: 0.0]),
        lambda: (budget.should_stop(), budget.stopping()),
    ]
    assert_counted(paid[0] + paid[1], budget, spend)


@race
def defaults_replaced() -> Any:
    defaults, changed = bounds._wait.__kwdefaults__, threading.Condition()
    before = dict(defaults)

    @tolerant(bounds.DecisionTimeout)
    def wait() -> None:
        with changed:
            bounds._wait(changed, bounds.never)

    defaults["clock"] = lambda: 0.0
    yield [wait, wait, in_turn(partial(defaults.__setitem__, "deadline"), [-1.5, 0.0])]
    defaults.update(before)


@race
def types_patched() -> Any:
    budget = wide_budget()
    notify_all = threading.Condition.notify_all

    class Priced(bounds.RunBudget):  # type: ignore[misc]
        cost: float = 0.0

    def patch() -> None:
        setattr(threading.Condition, "notify_all", lambda self: notify_all(self))
        bounds.Share.note = Priced.cost = Priced(9, 9)
        give_up(bounds.Share.note)
        setattr(threading.Condition, "notify_all", notify_all)

    paid = yield [lambda: pay(budget), lambda: give_up(budget), patch]
    del bounds.Share.note
    assert_counted(paid[0], budget)
