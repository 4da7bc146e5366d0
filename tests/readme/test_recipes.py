"""The README's further programs: each is run as it stands there, and does what its text says."""

from __future__ import annotations

import math
import subprocess
import sys
import tempfile
import time
import unittest
from collections import Counter
from datetime import datetime, timedelta, timezone
from functools import partial
from pathlib import Path
from typing import Any
from unittest import mock

from engines.decision_bounds import DailySpend, DecisionBudgetExceeded, DecisionTimeout

from examples.batch_pass.endpoint import Endpoint

from tests.readme.programs import FIRST, ROOT, programs
from tests.readme.support import names, side_by_side

CACHE = "A reply of your own cache"
TOOL = "A tool's call"
LEARNED = "Prices that are learned"
UNREAD = "An attempt that was never read and holds no share"
BEGUN = "A day that was begun before"
WINDOWS = "Hours, weeks, months"
WARNING = "A warning at 80 % of the cap, and where warnings go"
TENANTS = "A cap for each tenant"
PACKAGE = "A package `engines` of your own"


class RecipesTest(unittest.TestCase):
    def setUp(self) -> None:
        self.endpoint = Endpoint(faults={}).__enter__()
        self.addCleanup(self.endpoint.__exit__)
        patched = mock.patch.object(sys, "argv", ["program.py", self.endpoint.url])
        self.addCleanup(patched.stop)
        patched.start()

    def billed_usd(self) -> float:
        return math.fsum(charge.cost_usd for charge in self.endpoint.bill)

    def test_all_programs_are_tested(self) -> None:
        tested = [FIRST, CACHE, TOOL, LEARNED, UNREAD, BEGUN, WINDOWS, WARNING, TENANTS, PACKAGE]
        self.assertEqual(list(programs()), tested)

    def test_dearest_is_no_less_than_what_the_endpoint_may_bill(self) -> None:
        program = names()
        for request in ("x", "x" * 999):
            limit = program["MAX_OUTPUT_TOKENS"]
            answer = self.endpoint.attempt("summarise", request, limit).answer
            most = program["dearest"](request)
            self.assertLessEqual(answer["cost_usd"], most.cost)
            self.assertLessEqual(answer["input_tokens"], most.input_tokens)

    def test_interrupt_in_the_thread_that_calls(self) -> None:
        program = names()

        interrupted = mock.Mock(side_effect=KeyboardInterrupt)
        with mock.patch.dict(program, {"ask": interrupted}), self.assertRaises(KeyboardInterrupt):
            program["decide"]("x")
        most = program["dearest"]("x")
        self.assertEqual(program["day"].spent(), most.cost)
        used = program["budget"].summary()
        self.assertEqual((used["calls"], used["input_tokens"]), (1, most.input_tokens))

    def test_what_counts_without_a_share(self) -> None:
        program = names(CACHE, UNREAD)
        used = program["budget"].summary()
        self.assertEqual((used["cache_hits"], used["calls"]), (1, 0))
        most = program["dearest"]("a job that nobody waits for any more")
        self.assertEqual(program["day"].spent(), most.cost)

    def test_tool(self) -> None:
        program = names(TOOL)
        self.assertEqual(program["decide_for_tool"]("is it late?", 5.0).cost, self.billed_usd())
        day, never = program["day"], program["never"]
        with day.admit(lambda: 1.0, deadline=None, clock=time.monotonic, stopping=never):
            begun = time.monotonic()
            with self.assertRaises(DecisionTimeout):
                program["decide_for_tool"]("is it late?", 0.05)
            self.assertLess(time.monotonic() - begun, 20.0)
        self.assertEqual((day.spent(), day._held.holders), (self.billed_usd(), 0))

    def test_learned_prices(self) -> None:
        program = names(LEARNED)
        rates, dearest = program["rates"], program["dearest_so_far"]
        self.assertEqual((rates.cost(4, "triage"), rates.tokens(4)), (math.inf, math.inf))
        self.assertEqual([dearest("x", kind).cost for kind in ("triage", "new")], [0.002, 0.02])
        decide = partial(program["decide_and_learn"], "is it late?", "triage")
        replies = side_by_side([decide] * 8)
        self.assertEqual(len(self.endpoint.bill), 8)
        self.assertAlmostEqual(program["day"].spent(), self.billed_usd())
        self.assertEqual(dearest("x", "triage").cost, max(reply.cost for reply in replies))
        self.assertEqual(dearest("x", "new").cost, 0.02)

    def test_price_is_learned_before_the_call_settles(self) -> None:
        program = names(LEARNED)
        cheap, dear = (program["Reply"](9, usd) for usd in (0.001, 0.2))
        program["rates"].learn(1, "triage", cheap)
        known_usd = []

        def today() -> str:
            known_usd.append(program["dearest_so_far"]("x", "triage").cost)
            return "2030-01-31"

        program["day"] = DailySpend(1.0, today, None)
        with mock.patch.dict(program, {"ask": lambda _request: dear}):
            program["decide_and_learn"]("x", "triage")
        self.assertEqual(known_usd, [cheap.cost, dear.cost])
        unread = mock.Mock(side_effect=TimeoutError)
        with mock.patch.dict(program, {"ask": unread}), self.assertRaises(TimeoutError):
            program["decide_and_learn"]("x", "triage")
        self.assertEqual(program["day"].spent(), 2 * dear.cost)

    def test_windows_and_days_that_were_begun(self) -> None:
        program = names(BEGUN, WINDOWS)
        now = datetime(2030, 1, 31, 23, 30, tzinfo=timezone.utc)
        with mock.patch.dict(program, {"datetime": mock.Mock()}):
            clock = program["datetime"].now
            clock.return_value = now
            windows = [program[f"utc_{name}"]() for name in ("hour", "week", "month")]
            self.assertEqual(windows, ["2030-01-31T23", "2030-W05", "2030-01"])
            spent, hour = program["resumed"].spent, program["hour"]
            self.assertAlmostEqual(spent(), 0.3)
            hour.charge(program["dearest"]("x"))
            self.assertGreater(hour.spent(), 0.0)
            clock.return_value = now + timedelta(hours=1)
            self.assertEqual((hour.spent(), spent()), (0.0, 0.1))

    def test_warnings(self) -> None:
        program = names(WARNING)
        warn, charge = program["warn_at_80_percent"], program["day"].charge
        charge(program["Reply"](0, 0.79 * program["CAP_USD"]))
        with mock.patch("logging.warning") as logged:
            warn()
        logged.assert_not_called()
        charge(program["Reply"](0, 0.02 * program["CAP_USD"]))
        with self.assertLogs(level="WARNING") as logs:
            side_by_side([warn] * 8)
        self.assertEqual(logs.output, ["WARNING:root:$0.20 of $0.25 is spent today"])

    def test_cap_that_is_reached_is_told_where_no_logging_is_configured(self) -> None:
        program = (
            "import engines.decision_bounds as bounds\n"
            "account = bounds.DailySpend(0.0, str, None)\n"
            "account.admit(float, deadline=None, clock=float, stopping=bounds.never)\n"
        )
        run = subprocess.run(
            [sys.executable, "-c", program], cwd=ROOT, capture_output=True, text=True, check=False
        )
        self.assertRegex(run.stderr, r"\AThe daily decision cost cap is reached: \$0\.0000 of \$")

    def test_tenants(self) -> None:
        program = names(TENANTS)
        tenants, day, reply = program["tenants"], program["day"], program["Reply"](9, 0.0007)
        calls = [
            partial(program["decide_for_tenant"], name, "x") for name in tenants for _ in range(150)
        ]
        with mock.patch.dict(program, {"ask": lambda _request: reply}):
            with self.assertLogs("engines.decision_bounds"):
                ended = Counter(map(type, side_by_side(calls)))
        self.assertEqual(ended.keys(), {program["Reply"], DecisionBudgetExceeded})
        self.assertAlmostEqual(day.spent(), ended[program["Reply"]] * reply.cost)
        for account in tenants.values():
            self.assertTrue(0.10 <= account.spent() < 0.10 + program["dearest"]("x").cost)
            self.assertEqual((account._held.holders, day._held.holders), (0, 0))

    def test_engines_package_of_the_client(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            package = Path(folder) / "engines" / "__init__.py"
            package.parent.mkdir()
            search = f"import sys; sys.path.insert(0, {folder!r}); "

            def run(content: str, program: str) -> subprocess.CompletedProcess[str]:
                package.write_text(content, encoding="utf-8")
                command = [sys.executable, "-c", search + program]
                return subprocess.run(command, capture_output=True, text=True, check=False)

            use = "import engines.decision_bounds as bounds; print(bounds.logger.name)"
            hidden = run("", use).stderr
            self.assertIn("No module named 'engines.decision_bounds'", hidden)
            self.assertEqual(run(programs()[PACKAGE], use).stdout, "engines.decision_bounds\n")
            import engines.decision_bounds as bounds

            assert bounds.__file__
            plain = f"sys.path.insert(0, {str(Path(bounds.__file__).parent)!r}); "
            plain += "import decision_bounds as bounds; print(bounds.logger.name)"
            self.assertEqual(run("", plain).stdout, "decision_bounds\n")
