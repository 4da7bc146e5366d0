"""The decision client and its pass, attempt by attempt, at an endpoint that does what the test says."""

from __future__ import annotations

import math
import tempfile
import threading
import time
import unittest
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from pathlib import Path
from typing import Any
from unittest import mock

from engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionTimeout,
    DecisionUnavailable,
    RunBudget,
    never,
)

from examples.batch_pass import client as client_module
from examples.batch_pass.batch import BatchPass
from examples.batch_pass.client import READ_TIMEOUT_S, DecisionClient, Request
from examples.batch_pass.ledger import Ledger, LedgerError
from examples.batch_pass.prices import dearest
from examples.batch_pass.remote import NotBilled, NotRead, Reply
from examples.batch_pass.tally import Tally

REQUEST = Request("route: to which desk")
MOST = dearest(REQUEST.size)
ACCEPTED = Reply("accept", 29, 0.0003)
PATIENCE_S = 30.0


class Told:
    """An endpoint that answers what it was told to, or raises it."""

    def __init__(self) -> None:
        self.outcomes: list[Any] = []
        self.timeouts_s: list[float] = []
        self.meanwhile: Callable[[], object] = never

    def ask(self, _kind: str, _text: str, timeout_s: float) -> Reply:
        self.timeouts_s.append(timeout_s)
        self.meanwhile()
        outcome: Reply | BaseException = self.outcomes.pop(0)
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome


class ClientTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.ledger = Ledger(Path(folder.name) / "ledger")
        self.addCleanup(self.ledger.close)
        self.remote, self.tally = Told(), Tally()
        self.client: Any = DecisionClient(self.remote, self.ledger, 1.0, self.tally)  # type: ignore[arg-type]
        self.budget: Any = RunBudget(9, 9000)

    def held(self) -> list[float]:
        """What calls hold: slots, tokens and USD."""
        return [
            self.budget.in_flight,
            self.budget._held_tokens.amount,
            self.client.day._held.amount,
        ]

    def test_a_request_has_the_kind_before_its_first_colon_and_its_size_in_bytes(self) -> None:
        texts = {"route: a: b": "route", "two words: b": "general", "route": "general"}
        self.assertEqual([Request(text).kind for text in texts], list(texts.values()))
        self.assertEqual(Request("é").size, 2)

    def test_an_attempt_holds_its_dearest_reply_and_is_recorded_when_it_holds_no_more(self) -> None:
        self.remote.outcomes = [NotRead(), NotBilled(), KeyboardInterrupt(), ACCEPTED]
        held: list[list[float]] = []
        self.remote.meanwhile = lambda: held.append(self.held())
        record = mock.Mock(side_effect=lambda *_: held.append(self.held()))
        with mock.patch.object(self.ledger, "record", record), mock.patch("time.sleep") as sleep:
            self.assertRaises(KeyboardInterrupt, self.client.decide, REQUEST, self.budget)
            self.client.decide(REQUEST, self.budget)
        holds = [1, MOST.input_tokens, MOST.cost]
        # The attempts that were not read and the one that was are recorded; the refused one is not.
        self.assertEqual(
            held, [holds, [0, 0.0, 0.0], holds, holds, [0, 0.0, 0.0]] + [holds, [0] * 3]
        )
        self.assertEqual([call.args[1] for call in record.mock_calls], [MOST, MOST, ACCEPTED])
        self.assertEqual([call.args[0] for call in sleep.mock_calls], [0.05, 0.1])
        self.assertEqual(self.client.day.spent(), 2 * MOST.cost + ACCEPTED.cost)
        self.assertEqual((self.budget.calls, self.tally.retries), (3, 2))
        counts = (self.tally.paid, self.tally.paid_usd, self.tally.unread, self.tally.unread_usd)
        self.assertEqual(counts, (1, ACCEPTED.cost, 2, 2 * MOST.cost))

    def test_an_endpoint_that_failed_for_good_is_left_alone_for_a_while(self) -> None:
        self.remote.outcomes = [NotBilled("busy") for _ in range(4)] + [ACCEPTED]
        with mock.patch("time.sleep"):
            for _ in range(2):
                with self.assertRaisesRegex(DecisionUnavailable, "busy"):
                    self.client.decide(REQUEST, self.budget)
            self.assertEqual(len(self.remote.timeouts_s), 4)
            with mock.patch(
                "time.monotonic", return_value=time.monotonic() + client_module.CLOSED_S
            ):
                self.assertEqual(self.client.decide(REQUEST, self.budget), ACCEPTED)

    def test_a_reply_that_was_paid_before_is_counted_as_one_from_the_cache(self) -> None:
        self.ledger.record(REQUEST.text, ACCEPTED)
        self.assertTrue(self.client.decide(REQUEST, self.budget).cached)
        self.assertEqual((self.budget.cache_hits, self.budget.calls), (1, 0))

    def test_a_call_waits_for_tokens_before_it_holds_money_and_both_waits_see_the_stop(
        self,
    ) -> None:
        stop = threading.Event()
        budget: Any = RunBudget(9, 9000, should_stop=stop.is_set)
        admit = partial(self.client.day.admit, deadline=None, clock=None, stopping=never)
        holders: dict[str, tuple[Any, Any]] = {
            "tokens": (budget, lambda: budget.hold(math.inf)),
            "cap": (self.client.day, lambda: admit(lambda: math.inf)),
        }
        for bound, (full, hold) in holders.items():
            stop.clear()
            with self.subTest(bound), hold(), ThreadPoolExecutor(1) as pool:
                calling = pool.submit(self.client.decide, REQUEST, budget)
                end = time.monotonic() + PATIENCE_S
                while not full._changed._waiters and time.monotonic() < end:
                    time.sleep(0.001)
                time.sleep(0.03)
                self.assertEqual(self.client.day._held.holders, 0 if bound == "tokens" else 1)
                stop.set()
                with self.assertRaises(DecisionStopped):
                    calling.result(PATIENCE_S)
        self.assertEqual((budget.in_flight, self.held()[2], self.remote.timeouts_s), (0, 0.0, []))
        self.assertGreater(min(self.tally.waited_for_tokens_s, self.tally.waited_for_cap_s), 0.02)

    def test_a_tool_keeps_to_its_deadline_and_to_the_stop(self) -> None:
        self.remote.outcomes = [ACCEPTED]
        self.remote.meanwhile = lambda: self.assertEqual(self.held()[2], MOST.cost)
        self.client.ask(Request(REQUEST.text[::-1]), time.monotonic() + READ_TIMEOUT_S / 2, never)
        self.assertLessEqual(self.remote.timeouts_s.pop(), READ_TIMEOUT_S / 2)
        with self.assertRaises(DecisionTimeout):
            self.client.ask(REQUEST, time.monotonic() - 1.0, never)
        with self.client.day.admit(lambda: math.inf, deadline=None, clock=None, stopping=never):
            for stopping, error in ((never, DecisionTimeout), (lambda: True, DecisionStopped)):
                with self.assertRaises(error):
                    self.client.ask(REQUEST, time.monotonic() + 0.05, stopping)
        self.assertEqual(self.remote.timeouts_s, [])


class BatchPassTest(unittest.TestCase):
    def batch(self, decide: Callable[[Request, Any], Reply], requests: int = 3) -> BatchPass:
        """Return a pass of requests that ``decide`` answers."""
        client: Any = mock.Mock(decide=decide)
        return BatchPass(client, [Request(str(number)) for number in range(requests)], 9, 9)

    def test_each_reply_is_kept_for_its_request_and_as_many_threads_as_asked_for_decide(
        self,
    ) -> None:
        together = threading.Barrier(3, timeout=PATIENCE_S)

        def decide(request: Request, _budget: Any) -> Reply:
            together.wait()
            return Reply(request.text, 1, 0.0)

        batch = self.batch(decide)
        batch.run(3, lambda: None)
        self.assertEqual([reply and reply.decision for reply in batch.replies], ["0", "1", "2"])

    def test_what_ends_one_request_and_what_ends_the_pass(self) -> None:
        for error, asked in (
            (DecisionBudgetExceeded(), 3),
            (DecisionStopped(), 3),
            (DecisionUnavailable("down"), 3),
            (LedgerError("full"), 1),
        ):
            decide = mock.Mock(side_effect=error)
            batch = self.batch(decide)
            batch.run(1, lambda: None)
            self.assertEqual((decide.call_count, batch.decided), (asked, 0))
            self.assertEqual(batch.budget.stopping(), asked == 1)
        with self.assertRaises(ZeroDivisionError):
            self.batch(mock.Mock(side_effect=ZeroDivisionError)).run(1, lambda: None)
