"""An error from every callback and every property of a reply, at every time that it is asked."""

from __future__ import annotations

import math
import unittest
from collections.abc import Callable, Iterator
from typing import Any
from unittest import mock

from tests.module.support import TODAY, Boom, account, bounds


class Points:
    """Callbacks and replies that raise ``error`` when the one at ``failing`` is asked."""

    def __init__(self, failing: int, error: BaseException) -> None:
        self.asked: list[str] = []
        self._failing = failing
        self._error = error

    def ask(self, name: str, answer: Any) -> Any:
        self.asked.append(name)
        if len(self.asked) - 1 == self._failing:
            raise self._error
        return answer

    def callback(self, name: str, *answers: Any) -> Callable[..., Any]:
        """Make a function that gives the answers in turn, and the last for ever."""
        left = list(answers)
        return lambda *_: self.ask(name, left.pop(0) if len(left) > 1 else left[0])

    def reply(self, cached: bool = False) -> Any:
        """Make a paid reply."""
        values = {"cached": cached, "input_tokens": 3, "cost": 0.25}
        reads = {
            name: property(lambda _, name=name: self.ask(name, values[name]))  # type: ignore[misc]
            for name in values
        }
        return type("Reply", (), reads)()


class World:
    """A budget, an account and rates over the callbacks of some points."""

    def __init__(self, points: Points) -> None:
        self.points = points
        self.budget = bounds.RunBudget(9, 9, should_stop=points.callback("should_stop", False))
        ledger = points.callback("ledger", 1)
        self.spend = account(today=points.callback("today", TODAY), ledger=ledger)
        self.rates = bounds.RequestRates()
        self.bound = points.callback("bound", math.inf, 2.5)

    def admit(self) -> Any:
        stopping = self.points.callback("stopping", False)
        clock = self.points.callback("clock", 0.0)
        return self.spend.admit(self.bound, deadline=9.0, clock=clock, stopping=stopping)

    # What is done with it; each wait is ended by the share that was held before.

    def pass_a_call(self) -> None:
        with self.budget.hold(3.0) as share:
            share.settle(self.points.reply())

    def wait_for_tokens(self) -> None:
        with self.budget.hold(math.inf) as alone, self.sleeping(self.budget, alone):
            with self.budget.hold(3.0) as share:
                share.settle(self.points.reply())

    def count_a_hit(self) -> None:
        self.budget.charge(self.points.reply(cached=True))

    def pay_for_a_call(self) -> None:
        with self.admit() as share:
            share.settle(self.points.reply())

    def wait_for_the_cap(self) -> None:
        with self.admit() as alone, self.sleeping(self.spend, alone), self.admit() as share:
            share.settle(self.points.reply())

    def pay_without_a_share(self) -> None:
        self.spend.charge(self.points.reply())

    def learn(self) -> None:
        self.rates.learn(5, "kind", self.points.reply())

    def sleeping(self, bound: Any, share: Any) -> Any:
        """While a call sleeps, settle the share, once it has slept once for nothing."""
        sleeps = iter([None, self.points.reply])

        def wait(_timeout: float) -> None:
            reply = next(sleeps, None)
            if reply is not None:
                share.settle(reply())

        return mock.patch.object(bound._changed, "wait", wait, create=True)

    def idle(self) -> Iterator[bool]:
        """Whether no lock is taken and nothing is held."""
        yield not self.budget._changed._is_owned() and not self.spend._changed._is_owned()
        yield not self.rates._lock.locked()
        yield self.spend._held == bounds._Held()
        # A share of a pass whose reply does not say whether it was paid for is not given back.
        if self.points.asked[-1] != "cached":
            yield self.budget.in_flight == 0 and self.budget._held_tokens == bounds._Held()


COURSES = [
    *(World.pass_a_call, World.wait_for_tokens, World.count_a_hit, World.pay_for_a_call),
    *(World.wait_for_the_cap, World.pay_without_a_share, World.learn),
]


class PointsTest(unittest.TestCase):
    def setUp(self) -> None:
        silent = mock.patch.object(bounds, "logger")
        silent.start()
        self.addCleanup(silent.stop)

    def test_an_error_at_any_point_arrives_and_leaves_nothing_held(self) -> None:
        tried = 0
        for course in COURSES:
            points = Points(-1, Boom())
            course(World(points))
            for failing, name in enumerate(points.asked):
                for error in (Boom(), ValueError(), KeyboardInterrupt(), MemoryError()):
                    with self.subTest(course.__name__, point=failing, name=name, error=error):
                        self.fails(course, failing, error)
                        tried += 1
        self.assertGreater(tried, 100)

    def fails(self, course: Callable[[World], None], failing: int, error: BaseException) -> None:
        world = World(Points(failing, error))
        raised: BaseException | None = None
        try:
            course(world)
        except BaseException as caught:
            raised = caught
        if world.points.asked[failing] == "ledger" and isinstance(error, Exception):
            self.assertIsNone(raised)
        else:
            self.assertIs(raised, error)
        self.assertTrue(all(world.idle()))
