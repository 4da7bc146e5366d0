"""Single attempts of the client, and what an answer makes of them."""

from __future__ import annotations

import asyncio
import math
import socket
import threading
import time
from typing import Any
from unittest import mock

from aiohttp import web

from engines.decision_bounds import DecisionStopped, RunBudget

from ..admission import hold, open_to_loops
from ..client import DecisionClient, Request
from ..remote import NotBilled, NotRead, Remote, Reply
from .support import PATIENCE_S, BoundsTest, new_budget, new_spend, never_polled, run

REQUEST = Request("triage", "é")
MOST = Reply("", 26, 26 * 3e-6 + 320 * 15e-6)
ANSWER: dict[str, Any] = {"decision": "accept", "input_tokens": 5, "cost_usd": 0.0}


class AttemptsTest(BoundsTest):
    def test_an_attempt_holds_its_dearest_reply_in_both_bounds_and_counts_in_both(self) -> None:
        self.assertEqual(REQUEST.dearest(), MOST)
        budget: Any = open_to_loops(RunBudget(9, 9000))
        day: Any = new_spend()
        outcomes: list[Any] = [NotRead(), NotBilled(), Reply("accept", 5, 0.25)]

        async def ask(_kind: str, _text: str) -> Reply:
            self.assertEqual(budget._held_tokens.amount, MOST.input_tokens)
            self.assertEqual(day._held.amount, MOST.cost)
            outcome = outcomes.pop(0)
            if isinstance(outcome, Exception):
                raise outcome
            return Reply(outcome.decision, outcome.input_tokens, outcome.cost)

        async def main() -> None:
            with mock.patch("asyncio.sleep") as sleep:
                await DecisionClient(mock.Mock(ask=ask), budget, day).decide(REQUEST)
            self.assertEqual([call.args[0] for call in sleep.mock_calls], [0.05, 0.1])

        run(main())
        self.assertEqual((budget.calls, budget.input_tokens), (2, MOST.input_tokens + 5))
        self.assertEqual((budget.cost, day.spent()), (MOST.cost + 0.25,) * 2)
        self.assert_nothing_held(budget, day)

    def test_a_call_that_waits_for_money_stops_with_its_pass(self) -> None:
        stopped = threading.Event()
        budget = open_to_loops(RunBudget(9, 9000, should_stop=stopped.is_set))
        day = new_spend()

        async def main() -> None:
            with day.admit(lambda: math.inf, deadline=None, clock=time.monotonic, stopping=bool):
                waits = asyncio.create_task(
                    DecisionClient(mock.Mock(), budget, day).decide(REQUEST)
                )
                await asyncio.sleep(0.02)
                stopped.set()
                with self.assertRaises(DecisionStopped):
                    await waits

        run(main())
        self.assert_nothing_held(budget, day)

    @never_polled
    def test_a_call_that_must_be_alone_lets_others_look(self) -> None:
        budget = new_budget(9)

        async def main() -> None:
            with budget.hold(5.0):
                with budget.hold(4.0):
                    alone = asyncio.create_task(hold(budget, math.inf).__aenter__())
                    await asyncio.sleep(0)
                    behind = asyncio.create_task(hold(budget, 1.0).__aenter__())
                    await asyncio.sleep(0)
                (await asyncio.wait_for(behind, PATIENCE_S / 2)).settle(None)
            (await alone).settle(None)

        run(main())
        budget.release()
        self.assertEqual(getattr(budget, "_changed")._by_loop, {})

    def test_a_thread_that_waits_sees_a_stop(self) -> None:
        stopped = threading.Event()
        budget = open_to_loops(RunBudget(9, 9, should_stop=stopped.is_set))
        with budget.hold(9.0):
            threading.Timer(0.02, stopped.set).start()
            self.assertRaises(DecisionStopped, budget.reserve)

    def test_an_answer_is_read_refused_or_may_have_been_billed(self) -> None:
        wrong: list[Any] = [
            {**ANSWER, "input_tokens": -1},
            {**ANSWER, "cost_usd": "inf"},
            {"decision": ""},
            [],
        ]
        cases: list[tuple[int, Any, Any]] = [(429, ANSWER, NotBilled), (500, ANSWER, NotRead)]
        cases += [(200, body, NotRead) for body in wrong]

        async def main() -> None:
            async def answer(_request: Any) -> Any:
                return web.json_response(body, status=status)

            application = web.Application()
            application.router.add_post("/decide", answer)
            serving = web.AppRunner(application)
            await serving.setup()
            with socket.socket() as bound:
                bound.bind(("127.0.0.1", 0))
                url = f"http://127.0.0.1:{bound.getsockname()[1]}/"
                async with Remote(url) as remote:
                    with self.assertRaises(NotBilled):
                        await remote.ask("kind", "text")  # Nobody listens yet.
                    self.assertEqual(getattr(remote._session.connector, "limit"), 0)
                    await web.SockSite(serving, bound).start()
                    for status, body, error in cases:
                        with self.assertRaises(error, msg=body):
                            await remote.ask("kind", "text")
                    status, body = 200, ANSWER
                    reply = await remote.ask("kind", "text")
                    self.assertEqual(reply, Reply("accept", 5, 0.0))
                await serving.cleanup()

        run(main())
