"""The batch pass from end to end: each test runs the command as a user does."""

from __future__ import annotations

import os
import pty
import re
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from collections import Counter
from contextlib import closing
from pathlib import Path
from typing import Any

from examples.batch_pass.endpoint import Endpoint, Fault

ROOT = Path(__file__).parents[2]
COMMAND = [sys.executable, "-m", "examples.batch_pass"]
TRIES = 600  # of 0.05 s each: long after any run is over
LINES = 18
CAP = 0.0090001  # USD: less than the lines cost, and no sum of prices meets it exactly
MANY_FAULTS = {fault: 0.06 for fault in Fault}
DEAREST_USD = 0.006  # No shipped request may cost more.


class BatchPassTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.ledger = self.folder / "ledger.sqlite3"
        self.requests = self.folder / "requests.txt"
        kinds = ("triage", "route", "other words")
        lines = [f"{kinds[i % 3]}: does case {i} need a person to look at it" for i in range(LINES)]
        self.requests.write_text("\n".join(lines), encoding="utf-8")

    def start(
        self, *arguments: object, stdout: Any = subprocess.PIPE, stderr: Any = subprocess.PIPE
    ) -> subprocess.Popen[str]:
        """Starts a pass whose default ledger is in the test's own folder."""
        return subprocess.Popen(
            [*COMMAND, *map(str, arguments)],
            cwd=ROOT,
            env={**os.environ, "XDG_CACHE_HOME": str(self.folder / "cache"), "COLUMNS": "25"},
            stdout=stdout,
            stderr=stderr,
            text=True,
        )

    def run_pass(self, *arguments: object, status: int = 0, errors: str = "") -> str:
        """What a pass on the test's ledger prints; its errors must match ``errors`` wholly."""
        process = self.start("--ledger", self.ledger, *arguments)
        out, err = process.communicate()
        self.assertEqual((process.returncode, "Traceback" in err), (status, False), err)
        self.assertRegex(err, rf"\A{errors}\Z")
        return out

    def rows(self, query: str) -> list[Any]:
        with closing(sqlite3.connect(self.ledger)) as database:
            return database.execute(query).fetchall()

    def assert_ledger_is_whole(self, out: str) -> None:
        """The printed spend is what the file holds, and it holds each decision that was printed."""
        self.assertEqual(self.rows("PRAGMA integrity_check"), [("ok",)])
        self.assertAlmostEqual(
            self.printed(r"Today +\$([\d.]+)", out),
            self.rows("SELECT total(cost_usd) FROM paid")[0][0],
            delta=1e-6,
        )
        passes = "SELECT count(*) FROM paid WHERE decision <> '' AND request NOT LIKE 'tool:%'"
        self.assertEqual(self.rows(passes)[0][0], self.decided(out))

    def assert_bill_was_counted(self, endpoint: Endpoint, out: str) -> None:
        """Each attempt that was billed is in the ledger: at its price if its answer was read."""
        left = Counter((charge.text, charge.cost_usd) for charge in endpoint.bill)
        read = Counter(self.rows("SELECT request, cost_usd FROM paid WHERE decision <> ''"))
        self.assertLessEqual(read, left)
        left -= read
        unread = Counter(
            text for text, in self.rows("SELECT request FROM paid WHERE decision = ''")
        )
        self.assertLessEqual(Counter(text for text, _ in left.elements()), unread)

        counted = self.rows("SELECT total(cost_usd) FROM paid")[0][0]
        billed = sum(charge.cost_usd for charge in endpoint.bill)
        less = r"by the endpoint, \$([\d.]+) less: an answer never read"
        for pattern, usd in (
            (r"Counted +\$([\d.]+)", counted),
            (r"Today +\$([\d.]+)", counted),
            (r"Billed +\$([\d.]+)", billed),
            (less, counted - billed),
        ):
            self.assertAlmostEqual(self.printed(pattern, out), usd, delta=1e-6)

    def printed(self, pattern: str, out: str) -> float:
        found = re.search(pattern, out)
        assert found, f"{pattern} is not in {out}"
        return float(found[1])

    def decided(self, out: str) -> int:
        return int(self.printed(r"Requests +(\d+) of", out))

    def test_shipped_requests_are_paid_once_and_then_answered_from_the_cache(self) -> None:
        first = self.run_pass()
        self.assertRegex(first, r"Requests  (\d+) of \1 decided")
        paid = self.rows("SELECT * FROM paid")
        second = self.run_pass("--decisions")
        self.assertRegex(second, r"Requests  (\d+) of \1 decided .*: 0 paid, \1 from the cache")
        self.assertRegex(second, r"(?m)^(accept|decline|escalate) +triage: ")
        self.assertIn(f"no call was paid: what was paid before is in {self.ledger}", second)
        self.assertNotIn("no call was paid", first)
        self.assertEqual(self.rows("SELECT * FROM paid"), paid)
        today = r"Today +\$([\d.]+)"
        self.assertEqual(self.printed(today, first), self.printed(today, second))

    def test_equal_requests_at_once_are_paid_once(self) -> None:
        self.requests.write_text("route: the very same line\n\n" * 6, encoding="utf-8")
        out = self.run_pass(self.requests, "--threads", 6)
        self.assertIn("1 paid, 5 from the cache", out)

    def test_cap_refuses_and_a_higher_one_goes_on_from_the_ledger(self) -> None:
        warning = r"batch_pass: The daily decision cost cap is reached: .*\n"
        first = self.run_pass(self.requests, "--cap", CAP, status=3, errors=warning)
        self.assertIn("the daily cap is reached", first)
        self.assert_ledger_is_whole(first)
        spent = self.printed(r"Today +\$([\d.]+)", first)
        over = self.printed(r"passed by \$([\d.]+)", first)
        self.assertAlmostEqual(over, spent - CAP, delta=1e-6)
        second = self.run_pass(self.requests, "--cap", 1)
        self.assertIn(f"{self.decided(first)} from the cache", second)
        self.assertEqual(self.decided(second), LINES)
        self.assert_ledger_is_whole(second)

    def test_what_the_endpoint_billed_was_counted_whatever_failed(self) -> None:
        bounds = {"--max-calls": 30, "--max-tokens": 1500, "--cap": 0.05}
        for seed, (bound, limit) in enumerate(bounds.items()):
            with self.subTest(bound), Endpoint(seed, faults=MANY_FAULTS) as endpoint:
                self.ledger = self.folder / bound
                process = self.start(
                    *("--ledger", self.ledger, "--endpoint", endpoint.url),
                    *("--threads", 64, bound, limit),
                )
                out, _ = process.communicate()
                self.assertEqual(process.returncode, 3)
                self.assert_bill_was_counted(endpoint, out)
                in_pass = [each for each in endpoint.bill if not each.text.startswith("tool:")]
                used = {
                    "--max-calls": len(in_pass),
                    "--max-tokens": sum(each.input_tokens for each in in_pass) - 300,
                    "--cap": sum(each.cost_usd for each in endpoint.bill) - DEAREST_USD,
                }
                self.assertLessEqual(used[bound], limit)

    def test_refusals_cost_nothing_and_are_tried_again(self) -> None:
        with Endpoint(faults={Fault.REFUSED: 0.5}) as endpoint:
            endpoint.attempt("other", "x", 9)  # What another client paid before.
            out = self.run_pass(self.requests, "--endpoint", endpoint.url)
            self.assertGreater(self.printed(r"Retries +(\d+)", out), 0)
            self.assertEqual(len(endpoint.bill), 1 + LINES + 1)
            self.assertRegex(out, rf"{LINES + 1} calls paid .*, 0 answers never read \$0\.000000\n")
            self.assertRegex(out, rf"for {LINES + 1} calls .*, which is what was counted\n")
        self.assert_ledger_is_whole(out)

    def test_calls_and_tokens_run_out(self) -> None:
        out = self.run_pass(self.requests, "--max-calls", 7, status=3)
        self.assertLessEqual(self.printed(r"(\d+) of 7 calls", out), 7)
        self.assertLess(self.decided(out), LINES)
        self.assert_ledger_is_whole(out)
        out = self.run_pass(self.requests, "--max-tokens", 200, status=3)
        self.assertGreaterEqual(self.printed(r"(\d+) of 200 input tokens", out), 200)
        self.assert_ledger_is_whole(out)

    def test_interrupt_settles_the_calls_in_flight(self) -> None:
        endpoint = Endpoint(faults=MANY_FAULTS).__enter__()
        self.addCleanup(endpoint.__exit__)
        process = self.start("--ledger", self.ledger, "--endpoint", endpoint.url, "--threads", 4)
        for _ in range(TRIES):
            time.sleep(0.05)
            if self.ledger.exists() and self.recorded("decision = ''") >= 1:
                break
        process.send_signal(signal.SIGINT)
        out, err = process.communicate()
        self.assertEqual((process.returncode, err), (130, ""))
        self.assertIn("the pass was interrupted", out)
        self.assert_ledger_is_whole(out)
        self.assert_bill_was_counted(endpoint, out)

    def recorded(self, where: str) -> int:
        """The rows ``where`` that holds, in a ledger that may not have its table yet."""
        try:
            return int(self.rows(f"SELECT count(*) FROM paid WHERE {where}")[0][0])
        except sqlite3.OperationalError:
            return 0

    def test_ledger_that_fails_ends_the_pass(self) -> None:
        self.run_pass(self.requests, "--max-calls", 2, status=3)
        with closing(sqlite3.connect(self.ledger)) as database:
            full = "CREATE TRIGGER full BEFORE INSERT ON paid BEGIN SELECT RAISE(FAIL, 'full'); END"
            database.execute(full)
        before = self.rows("SELECT * FROM paid")
        failure = r"batch_pass: cannot write the ledger .*: full\n"
        self.assertIn("Undecided", self.run_pass(self.requests, status=1, errors=failure))
        self.assertEqual(self.rows("SELECT * FROM paid"), before)

    def test_endpoint_that_is_down(self) -> None:
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))  # Bound but not listening: whoever connects is refused.
            url = f"http://127.0.0.1:{taken.getsockname()[1]}"
            failure = rf"batch_pass: no connection to {re.escape(url)}: .*\n"
            down = ("--endpoint", url, self.requests)
            out = self.run_pass(*down, status=4, errors=failure)
            self.assertEqual((self.decided(out), "was paid" in out), (0, False))
            self.assertIn("unknown: the endpoint does not tell", out)
            self.run_pass(self.requests)
            self.assertIn(f"{LINES} from the cache", self.run_pass(*down))

    def test_report_that_cannot_be_printed(self) -> None:
        hung_up = self.start(self.requests, "--decisions")
        assert hung_up.stdout and hung_up.stderr
        hung_up.stdout.close()
        with hung_up.stderr as stderr:
            self.assertEqual((stderr.read(), hung_up.wait()), ("", 5))
        self.assertTrue((self.folder / "cache" / "batch_pass" / "ledger.sqlite3").exists())
        if os.path.exists("/dev/full"):
            with open("/dev/full", "w", encoding="utf-8") as full:
                process = self.start(self.requests, stdout=full)
                _, err = process.communicate()
            self.assertRegex(err, r"\Abatch_pass: cannot print the report: .*\n\Z")
            self.assertEqual(process.returncode, 5)

    def test_narrow_terminal_shows_the_money(self) -> None:
        terminal, stderr = pty.openpty()
        with open(terminal, encoding="utf-8") as shown:
            process = self.start(self.requests, stderr=stderr)
            os.close(stderr)
            lines = ""
            try:
                for line in shown:
                    lines += line
            except OSError:  # A terminal whose other side is closed cannot be read any more.
                pass
            process.communicate()
        self.assertRegex(lines, r"(?m)^\$0\.\d{4} of \$0\.2000 today$")

    def test_each_mistake_is_told_in_one_line(self) -> None:
        foreign = self.folder / "foreign.sqlite3"
        with closing(sqlite3.connect(foreign)) as database:
            database.execute("CREATE TABLE paid (somebody TEXT)")
        kept = foreign.read_bytes()
        for name, content in (("empty", b" \r\n"), ("bytes", b"one\n\n\xff\xfe\x00\n")):
            (self.folder / name).write_bytes(content)
        mistakes: dict[tuple[object, ...], str] = {
            (self.folder / "none",): "cannot read .*No such file",
            (self.folder,): "cannot read .*directory",
            (self.folder / "empty",): "no requests",
            (self.folder / "bytes",): "line 3 is not UTF-8",
            ("--ledger", self.folder): "cannot open the ledger",
            ("--ledger", self.folder / "none" / "ledger"): "cannot open the ledger",
            ("--ledger", self.requests): "cannot open the ledger",
            ("--ledger", foreign): "something else",
            ("--endpoint", "ftp://127.0.0.1"): "--endpoint",
            **{("--threads", threads): "--threads" for threads in (0, 257)},
            ("--max-calls", -1): "--max-calls",
            **{("--cap", cap): "--cap" for cap in ("much", "nan", "inf", -1)},
        }
        started = {mistake: self.start(*mistake) for mistake in mistakes}
        for mistake, process in started.items():
            with self.subTest(mistake):
                out, err = process.communicate()
                self.assertEqual((process.returncode, out), (2, ""))
                self.assertRegex(err, rf"\Abatch_pass: .*{mistakes[mistake]}.*\n\Z")
        self.assertEqual(foreign.read_bytes(), kept)
