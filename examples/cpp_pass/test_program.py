"""What the program counts, where it is full, stopped, or without a ledger that it can use.

    CPP_PASS=examples/cpp_pass/build/cpp_pass python3 -m unittest examples.cpp_pass.test_program
"""

from __future__ import annotations

import os
import re
import signal
import subprocess
import tempfile
import time
import unittest
from dataclasses import dataclass
from pathlib import Path

PROGRAM = os.environ.get("CPP_PASS", "")
MOST_OF_A_CALL_USD = 0.002
REQUESTS = 200
MAX_CALLS = 150
LAST_LINE = re.compile(
    r"counted today \$([\d.]+) of \$([\d.]+), billed in this run \$([\d.]+), held \$([\d.]+) by (\d+) calls"
)


@dataclass
class Run:
    """What a run has written, read."""

    status: int
    calls: int  # paid, as the pass counts
    ends: dict[str, int]  # of the pass, by name
    ends_of_tool: dict[str, int]
    amounts: tuple[float, ...]  # counted, cap, billed, held, and calls that hold
    warnings: str


def read(status: int, told: str, warnings: str) -> Run:
    """Read what a run has written."""
    of_pass, of_tool = told.split("a call on its own:\n")
    ends, tool = (
        {end: int(count) for count, end in re.findall(r"(?m)^ *(\d+) (.*)$", part)}
        for part in (of_pass, of_tool)
    )
    calls, last = re.search(r"'calls': (\d+)", of_pass), LAST_LINE.search(of_tool)
    assert calls and last
    return Run(status, int(calls[1]), ends, tool, tuple(map(float, last.groups())), warnings)


class ProgramTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.ledger = Path(folder.name, "ledger")

    def start(self, *arguments: object) -> subprocess.Popen[str]:
        command = [PROGRAM, *map(str, arguments)]
        return subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, encoding="utf-8"
        )

    def run_pass(self, cap_usd: float) -> Run:
        process = self.start(self.ledger, cap_usd)
        told, warnings = process.communicate(timeout=60)
        return read(process.returncode, told, warnings)

    def paid_usd(self) -> list[float]:
        return [float(line.split()[1]) for line in self.ledger.read_text("utf-8").splitlines()]

    def test_what_is_counted_is_what_may_be_billed(self) -> None:
        for cap_usd in (0.20, 0.05):
            self.ledger.unlink(missing_ok=True)
            run = self.run_pass(cap_usd)
            counted, cap, billed, *held = run.amounts
            lost = run.ends["answer lost: counted at its dearest"]
            lost += run.ends_of_tool.get("answer lost: counted at its dearest", 0)
            refused = run.ends["refused by the endpoint: not billed"]
            not_made = run.ends["not made: a bound is full"]
            self.assertEqual(run.status, 0)
            self.assertRegex(run.warnings, r"^The daily .* is reached.*\n$" if cap < 0.1 else "^$")
            self.assertEqual(sum(run.ends.values()), REQUESTS)
            self.assertEqual(run.calls, REQUESTS - refused - not_made)
            self.assertLessEqual(run.calls, MAX_CALLS)
            self.assertEqual(sum(run.ends_of_tool.values()), 1)
            self.assertTrue(
                billed < counted < min(billed + lost * MOST_OF_A_CALL_USD, cap + MOST_OF_A_CALL_USD)
            )
            self.assertEqual(held, [0, 0])
            paid_usd = self.paid_usd()
            of_tool = run.ends_of_tool.keys() & {"answered", "answer lost: counted at its dearest"}
            self.assertEqual(len(paid_usd), run.calls + len(of_tool))
            self.assertAlmostEqual(sum(paid_usd), counted, delta=1e-6)

    def test_a_day_goes_on_from_its_ledger(self) -> None:
        self.ledger.write_text("2000-01-01 9\n")
        first, again = self.run_pass(0.05), self.run_pass(0.01)
        self.assertLess(first.amounts[0], 0.05 + MOST_OF_A_CALL_USD)
        self.assertEqual(again.amounts[0], first.amounts[0])
        self.assertEqual(again.ends, {"not made: a bound is full": REQUESTS})
        self.assertEqual(again.ends_of_tool, {"not made: a bound is full": 1})

    def test_a_ledger_that_cannot_be_used(self) -> None:
        self.ledger.write_text("no ledger")
        run = self.run_pass(0.05)
        self.assertEqual((run.status, run.ends.keys() >= {"answered"}), (0, True))
        self.assertIn("Could not read what the decision calls of", run.warnings)
        self.ledger.unlink()
        self.ledger.mkdir()
        run = self.run_pass(0.05)
        self.assertEqual(run.status, 1)
        self.assertIn("cannot be written", run.warnings)

    def test_a_stop(self) -> None:
        """The signal comes a little later in each run, until it meets the pass before its end."""
        delay_s, end = 0.0, time.monotonic() + 60
        while time.monotonic() < end:
            process = self.start(self.ledger, 100)
            time.sleep(delay_s)
            process.send_signal(signal.SIGINT)
            told, warnings = process.communicate(timeout=60)
            if process.returncode == -signal.SIGINT:
                delay_s += 0.00025  # There was no handler yet.
                continue
            run = read(process.returncode, told, warnings)
            if "not made: stopped" in run.ends:
                self.assertEqual((run.status, run.amounts[3:]), (0, (0, 0)))
                return
            delay_s /= 2  # The pass had ended.
        self.fail("no run was stopped")

    def test_usage(self) -> None:
        for arguments in ((), (self.ledger, 1, 2), (self.ledger, "much"), (self.ledger, "")):
            with self.subTest(arguments):
                process = self.start(*arguments)
                told, warnings = process.communicate(timeout=60)
                self.assertEqual((process.returncode, told), (2, ""))
                self.assertIn("usage: cpp_pass LEDGER [CAP_USD]", warnings)
