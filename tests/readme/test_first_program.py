"""The README's first program, as it stands there, against an endpoint that fails and keeps a bill."""

from __future__ import annotations

import json
import math
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path
from typing import Any

from examples.batch_pass.endpoint import Endpoint, Fault

from tests.readme.programs import FIRST, ROOT, programs

PATIENCE_S = 60.0
NOT_SENT = ("DecisionBudgetExceeded", "DecisionStopped")
REFUSED = "HTTPError 429"
FAILED = ("HTTPError 500", "TimeoutError", "IncompleteRead")


class FirstProgramTest(unittest.TestCase):
    def run_program(self, endpoint: Endpoint, interrupted_at: float = math.inf) -> Any:
        """The figures of a run, which gets a SIGINT once so many of its calls were billed."""
        with tempfile.TemporaryDirectory() as folder:
            program = Path(folder) / "program.py"
            program.write_text(programs()[FIRST], encoding="utf-8")
            process = subprocess.Popen(
                [sys.executable, "-m", "tests.readme.account", str(program), endpoint.url],
                cwd=ROOT,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
            )
            end = time.monotonic() + PATIENCE_S
            while process.poll() is None and len(endpoint.bill) < interrupted_at < math.inf:
                self.assertLess(time.monotonic(), end)
                time.sleep(0.005)
            if interrupted_at < math.inf:
                process.send_signal(signal.SIGINT)
            out, err = process.communicate(timeout=PATIENCE_S)
        self.assertEqual((process.returncode, "Traceback" in err), (0, False), err)
        return json.loads(out.splitlines()[-1])

    def assert_counted_as_billed(self, figures: Any, endpoint: Endpoint) -> None:
        """Counted is what was billed for each answer read, and the dearest for each never read."""
        billed = {charge.text: charge for charge in endpoint.bill}
        self.assertEqual(len(billed), len(endpoint.bill), "a call made more than one attempt")
        counted = []
        for call in figures["calls"]:
            charge, reply = billed.pop(call["request"], None), call["reply"]
            if call["outcome"] in (*NOT_SENT, REFUSED):
                self.assertIsNone(charge)
                continue
            if call["outcome"] == "Reply":
                assert charge
                read = (charge.input_tokens, charge.cost_usd)
                self.assertEqual((reply["input_tokens"], reply["cost"]), read)
            else:
                self.assertLess(charge.cost_usd if charge else 0.0, reply["cost"])
            counted.append(reply)
        self.assertEqual(billed, {})

        summary, spent = figures["summary"], figures["spent_usd"]
        self.assertEqual(summary["calls"], len(counted))
        self.assertEqual(summary["input_tokens"], sum(reply["input_tokens"] for reply in counted))
        self.assertAlmostEqual(spent, math.fsum(reply["cost"] for reply in counted), 12)
        self.assertAlmostEqual(spent, summary["cost_usd"], delta=1e-6)
        self.assertLess(spent, figures["cap_usd"] + max(reply["cost"] for reply in counted))
        self.assertEqual(figures["held"], [0, 0.0, 0, 0.0])

    def test_faults_and_the_cap(self) -> None:
        with Endpoint(faults={fault: 0.06 for fault in Fault}) as endpoint:
            figures = self.run_program(endpoint)
            self.assert_counted_as_billed(figures, endpoint)
        outcomes = {call["request"]: call["outcome"] for call in figures["calls"]}
        self.assertLessEqual({REFUSED, "DecisionBudgetExceeded"}, set(outcomes.values()))
        billed = {outcomes[charge.text] for charge in endpoint.bill}
        self.assertLessEqual({"Reply", *FAILED}, billed)
        self.assertGreaterEqual(figures["spent_usd"], figures["cap_usd"])

    def test_interrupt(self) -> None:
        with Endpoint(faults={Fault.KEPT_BACK: 0.5}) as endpoint:
            figures = self.run_program(endpoint, interrupted_at=40)
            self.assert_counted_as_billed(figures, endpoint)
        self.assertIn("DecisionStopped", {call["outcome"] for call in figures["calls"]})
        self.assertLess(figures["spent_usd"], figures["cap_usd"])
