"""Numbers, texts and answers of any type: never converted, and asked for their own operators."""

from __future__ import annotations

import math
import unittest
from decimal import Decimal
from fractions import Fraction
from typing import Any
from unittest import mock

from tests.module.support import TODAY, Boom, Reply, account, admit, bounds


class Amount(float):
    """A number whose own operators answer, and note that they ran."""

    asked = ""

    def __radd__(self, other: float) -> float:
        self.asked += "+"
        return other + float(self)

    def __rsub__(self, other: float) -> float:
        self.asked += "-"
        return other - float(self)


class Tokens(int):
    """The same of integers."""

    def __radd__(self, other: int) -> int:
        return 100 + other + int(self)


class ValuesTest(unittest.TestCase):
    def test_values_fail_only_where_they_are_used(self) -> None:
        budget = bounds.RunBudget(max_calls="many", max_tokens=None, cost="free")
        for operation in (budget.reserve, budget.summary, account(today="today").spent):
            self.assertRaises(TypeError, operation)
        self.assertRaises(TypeError, bounds._Held(1).admits, "inf", 0, 9)
        self.assertRaises(OverflowError, bounds._Held(1).admits, 10**400, 0, 9)
        # A call that runs alone decides before anything else is looked at.
        self.assertIs(bounds._Held(1, unbounded=1).admits("inf", None, None), False)

    def test_integers_have_no_limit_and_compare_exactly(self) -> None:
        budget = bounds.RunBudget(10**30, 10**40, calls=10**30 - 2)
        budget.charge(Reply(input_tokens=10**39), 5)
        self.assertEqual(budget.calls, 10**30 - 1)
        self.assertEqual(budget.input_tokens, 10**39)
        # As doubles, these sums would equal their limits.
        self.assertTrue(bounds._Held().admits(1.0, 2**53, 2**53 + 1))
        self.assertTrue(bounds._Held(amount=0).admits(1, 10**400, 10**400 + 1))
        self.assertFalse(bounds.RunBudget(2**53 + 1, 1, calls=2**53, in_flight=0.0).exhausted())
        budget = bounds.RunBudget(9, 9, input_tokens=2**53 - 1)
        budget.charge(Reply(input_tokens=2))
        self.assertEqual(budget.input_tokens, 2**53 + 1)
        budget = bounds.RunBudget(9, 9)
        budget.charge(Reply(input_tokens=Tokens(2)))
        self.assertEqual(budget.input_tokens, 102)
        self.assertEqual(repr(bounds._Charges(2).bound(3)), "6")

    def test_values_are_the_objects_that_came_in(self) -> None:
        cost, tally = float("0.5"), mock.Mock()
        budget = bounds.RunBudget(9, 9, cost=cost, _held_tokens=tally)
        budget.hold(cost)
        self.assertIs(budget.cost, cost)
        self.assertIs(tally.take.call_args.args[0], cost)
        budget.charge(Reply(cost=0.25))
        self.assertIs(budget.cost, budget.cost)
        self.assertIsNot(budget.summary(), budget.summary())

    def test_types_stay_what_they_are(self) -> None:
        held = bounds._Held(0, Fraction(0))
        held.take(Fraction(1, 3))
        held.take(True)
        held.take(Decimal("-Infinity"))
        held.take(Fraction(-1))
        self.assertEqual(repr(held), "_Held(holders=4, amount=Fraction(1, 3), unbounded=1)")
        self.assertFalse(bounds._Held(-0.5).admits(math.inf, 0, 9))
        budget = bounds.RunBudget(True, 9, cost=Decimal(1))
        budget.charge(Reply(input_tokens=True, cost=Decimal("0.0000015")))
        text = "{'calls': 1, 'cache_hits': 0, 'input_tokens': 1, 'cost_usd': Decimal('1.000002'),"
        self.assertEqual(repr(budget.summary()), text + " 'max_calls': True, 'max_tokens': 9}")

    def test_costs_are_rounded_as_the_host_rounds(self) -> None:
        ties = (5e-07, 1.5e-06, 2.5e-06, -2.5e-06, 1.0000005, 0.0078125)
        for cost in (*ties, 4e9 + 1e-6, 5e9 / 3, 1e17 / 3, 1e305, -1e305, math.inf, -0.0):
            summary = bounds.RunBudget(9, 9, cost=cost).summary()
            self.assertEqual(repr(summary["cost_usd"]), repr(round(cost, 6)))

    def test_operators_of_the_values_answer(self) -> None:
        limit = mock.MagicMock()
        limit.__le__.return_value = False
        limit.__gt__.return_value = True
        bounds.RunBudget(limit, limit).reserve()
        call: Any = mock.call
        self.assertEqual(limit.mock_calls, [call.__le__(0), call.__le__(0), call.__gt__(0.0)])
        amount = Amount(2.0)
        admit(account(), amount).settle(None)
        bounds.RunBudget(1, 9).hold(amount).settle(None)
        self.assertEqual(amount.asked, "+-+-")

    def test_the_larger_of_two_is_the_second_only_where_it_is_greater(self) -> None:
        held = bounds._Held(3, -0.0, -3)
        held.give_back(0.0)
        held.give_back(math.nan)
        self.assertEqual(repr(held), "_Held(holders=1, amount=0.0, unbounded=-3)")
        charges = bounds._Charges()
        charges.learn(1, math.nan)
        self.assertEqual(repr(charges), "_Charges(per_byte=0.0, per_call=0.0)")
        self.assertEqual(repr(bounds._Charges(1.0, 3).bound(3)), "3.0")

    def test_charges_keep_the_charge_and_divide_as_the_host_does(self) -> None:
        charges = bounds._Charges()
        charges.learn(3000, 1000)
        self.assertEqual(repr(charges), f"_Charges(per_byte={1000 / 3000}, per_call=1000)")
        self.assertEqual(repr(charges.bound(1500)), "1000")
        charges.learn(3, 2**60 + 1)
        self.assertEqual(charges.per_byte, (2**60 + 1) / 3)
        charges.learn(10**380, 10**400)
        self.assertEqual(charges, bounds._Charges(1e20, 10**400))
        self.assertRaises(OverflowError, charges.learn, 0, 10**400)

    def test_texts_of_the_refusals(self) -> None:
        text = "decision budget exhausted: {'calls': 40, 'cache_hits': 3, 'input_tokens': 812, "
        text += "'cost_usd': 1.5e-05, 'max_calls': 40, 'max_tokens': inf}"
        with self.assertRaises(bounds.DecisionBudgetExceeded) as caught:
            bounds.RunBudget(40, math.inf, 40, 812, 0.0000154, 3).hold(1.0)
        self.assertEqual(caught.exception.args, (text,))
        spend = account(cap=5)
        spend.charge(Reply(cost=5.00012))
        with self.assertLogs(bounds.logger, "WARNING") as logs:
            self.assertRaises(bounds.DecisionBudgetExceeded, admit, spend)
            with self.assertRaises(bounds.DecisionBudgetExceeded) as caught:
                admit(spend)
        reached = "he daily decision cost cap is reached: $5.0001 of $5.00 spent today (UTC)"
        self.assertEqual(caught.exception.args, (f"t{reached}",))
        (record,) = logs.records
        resumed = "; paid calls resume tomorrow, cached answers are still used"
        self.assertEqual(record.getMessage(), f"T{reached}{resumed}")
        self.assertEqual(record.args, (5.00012, 5))
        self.assertIsNone(record.exc_info)

    def test_answers_are_taken_by_their_truth_and_handed_on_as_they_came(self) -> None:
        answers: tuple[Any, ...] = ("yes", [])
        for answer in answers:
            budget = bounds.RunBudget(1, 2, should_stop=lambda: answer)
            budget.charge(Reply(cached=answer))
            self.assertEqual(repr(budget.stopping()), repr(bool(answer)))
            self.assertEqual([budget.cache_hits, budget.calls], [1, 0] if answer else [0, 1])
        unsure = mock.MagicMock(__bool__=mock.Mock(side_effect=Boom))
        budget = bounds.RunBudget(1, 2, should_stop=lambda: unsure)
        for operation in (budget.stopping, budget.reserve, lambda: budget.charge(Reply(unsure))):
            self.assertRaises(Boom, operation)
        # Whether there is a give-back function or a reply is no question of their truth.
        bounds.Share(unsure).settle(unsure)
        self.assertIs(unsure.call_args.args[0], unsure)
        day = type("Day", (str,), {})(TODAY)
        ledger = mock.Mock(return_value=1)
        spend = account(today=lambda: day, ledger=ledger)
        self.assertEqual(repr(spend.spent()), "1.0")
        self.assertIs(ledger.call_args.args[0], day)
        self.assertIs(spend._day, day)
        # A date that is unlike itself is new each time.
        spend._today = lambda: math.nan
        ledger.reset_mock()
        spend.spent()
        spend.spent()
        self.assertEqual(ledger.call_count, 2)
