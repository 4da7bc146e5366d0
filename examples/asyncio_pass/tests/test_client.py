"""The pass over HTTP: what it counts is never less than what an endpoint bills."""

from __future__ import annotations

import asyncio
import random
import re
import subprocess
import sys
import unittest
from typing import Any
from unittest import mock

from aiohttp import web

from engines import decision_bounds
from engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionUnavailable,
    RunBudget,
)

from .. import remote
from ..admission import open_to_loops
from ..client import DecisionClient, Request
from ..remote import Remote, Reply

PATIENCE_S = 60.0
REQUEST = Request("triage", "does a case need a person to look at it")


class Endpoint:
    """A server on the test's own loop that keeps its own ledger and fails as ``fates`` say."""

    def __init__(self, seed: int, fates: dict[str, float]) -> None:
        self._chance = random.Random(seed)
        self._fates = fates
        self.billed_usd = 0.0
        self.unread = 0

    async def __aenter__(self) -> str:
        application = web.Application()
        application.router.add_post("/decide", self._decide)
        self._runner = web.AppRunner(application, shutdown_timeout=0.1)
        await self._runner.setup()
        site = web.TCPSite(self._runner, "127.0.0.1", 0)
        await site.start()
        return f"http://127.0.0.1:{self._runner.addresses[0][1]}"

    async def __aexit__(self, *_exc: object) -> None:
        await self._runner.cleanup()

    async def _decide(self, asked: Any) -> Any:
        (fate,) = self._chance.choices(list(self._fates), list(self._fates.values()))
        await asyncio.sleep(self._chance.uniform(0.0, 0.01))
        if fate == "refused":
            return web.Response(status=429)
        cost = self._chance.uniform(0.2, 1.0) * REQUEST.dearest().cost
        self.billed_usd += cost
        answer = {"decision": "accept", "input_tokens": 30, "cost_usd": cost}
        if fate == "answered":
            return web.json_response(answer)
        self.unread += 1
        if fate == "stalls":
            await asyncio.sleep(PATIENCE_S)
        elif fate == "hangs up":
            asked.transport.close()
        elif fate == "cut":
            return web.Response(text='{"decision": "accept", "inp')
        elif fate == "no price":
            return web.json_response({"cost_usd": "nan"})
        return web.Response(status=500)


def run_pass(
    endpoint: Endpoint, cap_usd: float, cancelled: int = 0, timeout_s: float = 20.0
) -> tuple[float, list[Any]]:
    """Run 200 calls at once, some of them cancelled; return what was spent and how they ended."""
    budget = open_to_loops(RunBudget(10**6, 10**6))
    day = open_to_loops(DailySpend(cap_usd, lambda: "2024-05-01", None))

    async def main() -> list[Any]:
        async with endpoint as url, Remote(url) as reached:
            client = DecisionClient(reached, budget, day)
            calls = [asyncio.create_task(client.decide(REQUEST)) for _ in range(200)]
            for call in calls[:cancelled]:
                await asyncio.sleep(0.003)
                call.cancel()
            return await asyncio.gather(*calls, return_exceptions=True)

    with mock.patch.object(remote, "_TIMEOUT_S", timeout_s):
        ended = asyncio.run(asyncio.wait_for(main(), PATIENCE_S))
    held: Any = day
    assert (held._held.holders, budget.in_flight) == (0, 0)
    return day.spent(), ended


class ClientTest(unittest.TestCase):
    def test_what_is_counted_is_what_was_read_and_the_dearest_reply_for_what_was_not(self) -> None:
        fates = dict.fromkeys(("refused", "500", "cut", "no price", "hangs up"), 2.0)
        endpoint = Endpoint(1, {"answered": 90.0, **fates})
        spent_usd, ended = run_pass(endpoint, cap_usd=2.0)
        answered_usd = sum(each.cost for each in ended if isinstance(each, Reply))
        unread_usd = endpoint.unread * REQUEST.dearest().cost
        self.assertAlmostEqual(spent_usd, answered_usd + unread_usd)
        self.assertGreater(endpoint.unread, 0)
        self.assertGreaterEqual(spent_usd, endpoint.billed_usd)

    def test_the_bill_of_a_pass_with_cancelled_calls_stays_within_one_call_of_the_cap(self) -> None:
        endpoint = Endpoint(2, {"answered": 90.0, "refused": 5.0, "500": 5.0})
        with self.assertLogs(decision_bounds.logger):
            spent_usd, ended = run_pass(endpoint, cap_usd=0.15, cancelled=60)
        self.assertTrue(0.15 <= spent_usd < 0.15 + REQUEST.dearest().cost)
        self.assertLessEqual(endpoint.billed_usd, spent_usd)
        ends: set[type[object]] = {type(each) for each in ended}
        self.assertEqual(ends, {Reply, asyncio.CancelledError, DecisionBudgetExceeded})

    def test_an_endpoint_that_never_answers_is_counted_up_to_the_cap(self) -> None:
        endpoint = Endpoint(3, {"stalls": 1.0})
        with self.assertLogs(decision_bounds.logger):
            spent_usd, _ended = run_pass(endpoint, cap_usd=0.05, timeout_s=0.2)
        self.assertTrue(0.05 <= spent_usd < 0.05 + REQUEST.dearest().cost)
        self.assertLessEqual(endpoint.billed_usd, spent_usd)

    def test_an_endpoint_that_refuses_everything_costs_nothing(self) -> None:
        spent_usd, ended = run_pass(Endpoint(4, {"refused": 1.0}), cap_usd=1.0)
        self.assertEqual({type(each) for each in ended}, {DecisionUnavailable})
        self.assertEqual(spent_usd, 0.0)

    def test_the_command_keeps_to_its_cap(self) -> None:
        command = [sys.executable, "-m", "examples.asyncio_pass", "--calls", "150", "--cap", "0.05"]
        done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_S)
        self.assertEqual((done.returncode, "Traceback" in done.stderr), (0, False), done.stderr)
        today = re.search(r"Today     \$([\d.]+) of \$0\.050000 spent", done.stdout)
        assert today, done.stdout
        self.assertTrue(0.05 <= float(today[1]) < 0.055)


if __name__ == "__main__":
    unittest.main()
