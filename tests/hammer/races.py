"""The races: what several threads do to one object at once, and what must hold when they have ended.

All amounts are such that their sums are exact in any order.
"""

from __future__ import annotations

import copy
import gc
import itertools
import threading
import weakref
from collections.abc import Callable, Iterable
from contextlib import suppress
from functools import partial
from typing import Any

from tests.hammer.threads import Race
from tests.module.support import TODAY, Reply, account, admit, bounds, extension_only

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
