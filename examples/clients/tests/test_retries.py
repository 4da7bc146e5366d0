"""What becomes of a call where the library retries by itself, and where a guard sits inside it."""

from __future__ import annotations

import unittest
from typing import Any

import anthropic
import httpx
import httpx2
import openai

from engines.decision_bounds import DecisionBudgetExceeded

from examples.clients import anthropic_calls, openai_calls
from examples.clients.endpoint import Endpoint, Fate
from examples.clients.tests.support import Pass, connect, dearest

QUESTION = "route: which desk"
VENDORS: tuple[tuple[Any, Any, Any], ...] = (
    (openai_calls, openai.APIConnectionError, httpx),
    (anthropic_calls, anthropic.APIConnectionError, httpx2),
)


class RetriesTest(unittest.TestCase):
    def test_library_that_retries_is_billed_more_than_is_counted(self) -> None:
        for library, _, _ in VENDORS:
            with self.subTest(library=library.__name__), Endpoint(lambda _: Fate.CUT) as endpoint:
                with connect(library, endpoint.url) as client:
                    done = Pass()
                    with self.assertRaises(Exception):
                        library.ask(client.with_options(max_retries=2), done.calls, QUESTION)
                    self.assertEqual(len(endpoint.bills), 3)
                    self.assertEqual(done.day.spent(), dearest(library, QUESTION).cost)

    def test_refusal_inside_the_library_is_retried_and_hidden(self) -> None:
        for library, hidden_by, http in VENDORS:
            with self.subTest(library=library.__name__), Endpoint(lambda _: Fate.CUT) as endpoint:
                done = Pass(cap_usd=0.0)
                refused: list[DecisionBudgetExceeded] = []

                def guard(_request: Any) -> None:
                    """Bound each attempt, where it counts them all."""
                    try:
                        with done.calls.hold(dearest(library, QUESTION)):
                            self.fail("it was admitted")
                    except DecisionBudgetExceeded as error:
                        refused.append(error)
                        raise

                hooks = {"request": [guard]}
                with connect(library, endpoint.url) as client, http.Client(
                    event_hooks=hooks
                ) as guarded:
                    retrying = client.with_options(http_client=guarded, max_retries=2)
                    with self.assertRaises(hidden_by) as raised:
                        library.ask(retrying, Pass().calls, QUESTION)
                self.assertEqual((len(refused), endpoint.bills), (3, []))
                self.assertIs(raised.exception.__cause__, refused[-1])
