"""The parts of the batch pass one by one: its endpoint, its ledger, its answers and what it shows."""

from __future__ import annotations

import json
import logging
import os
import signal
import socket
import tempfile
import threading
import time
import unittest
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager, redirect_stdout
from datetime import datetime, timezone
from http.server import BaseHTTPRequestHandler, HTTPServer
from io import StringIO
from pathlib import Path
from typing import Any
from unittest import mock

from engines.decision_bounds import DailySpend, DecisionTimeout, never

from examples.batch_pass import ledger as ledger_module
from examples.batch_pass.batch import BatchPass
from examples.batch_pass.client import Request
from examples.batch_pass.command import main
from examples.batch_pass.endpoint import INPUT_TOKEN_USD, MAX_OUTPUT_TOKENS, OUTPUT_TOKEN_USD
from examples.batch_pass.endpoint import PROMPT_TOKENS, Endpoint, Fault
from examples.batch_pass.keyed_lock import KeyedLock
from examples.batch_pass.ledger import Ledger, LedgerError, default_ledger, utc_today
from examples.batch_pass.prices import dearest
from examples.batch_pass.progress import Progress
from examples.batch_pass.remote import Bill, NotBilled, NotRead, Remote, Reply
from examples.batch_pass.report import Billed, bill, progress_line, summary
from examples.batch_pass.tally import Tally
from examples.batch_pass.tool import DEADLINE_S, ask_as_tool

PATIENCE_S = 30.0
ANSWER = '{"decision": "accept", "input_tokens": 5, "cost_usd": 0.0}'
ASKED = {"kind": "kind", "text": "text", "max_output_tokens": MAX_OUTPUT_TOKENS}
IMPOSSIBLE = {'"accept"': '""', "5": "-1", "0.0": "NaN", "}": ', "more": ', "input": "output"}


class Terminal(StringIO):
    def isatty(self) -> bool:
        return True


@contextmanager
def answering(status: int, body: str) -> Iterator[Remote]:
    """Serve one answer to whatever is asked, at the end of a path."""

    class Handler(BaseHTTPRequestHandler):
        def do_POST(self) -> None:
            question = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
            as_asked = self.path == "/below/decide" and question == ASKED
            self.send_response(status if as_asked else 500)
            self.end_headers()
            self.wfile.write(body.encode())

        def log_message(self, format: str, *args: object) -> None:
            pass

    with HTTPServer(("127.0.0.1", 0), Handler) as server:
        serving = threading.Thread(target=server.handle_request)
        serving.start()
        yield Remote(f"http://127.0.0.1:{server.server_port}/below/")
        serving.join()


class PartsTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.file = Path(folder.name) / "ledger"

    def test_an_answer_is_read_refused_or_may_have_been_billed(self) -> None:
        wrong = [(200, ANSWER.replace(*change)) for change in IMPOSSIBLE.items()]
        for answers, error in (
            ([(400, ANSWER), (404, ANSWER), (429, ANSWER)], NotBilled),
            ([(500, ANSWER), (204, ANSWER), *wrong], NotRead),
        ):
            for status, body in answers:
                with self.subTest(status=status, body=body), answering(status, body) as remote:
                    with self.assertRaises(error):
                        remote.ask("kind", "text", PATIENCE_S)
        with answering(200, ANSWER) as remote:
            self.assertEqual(remote.ask("kind", "text", PATIENCE_S), Reply("accept", 5, 0.0))
        with socket.socket() as silent:
            silent.bind(("127.0.0.1", 0))
            remote = Remote(f"http://127.0.0.1:{silent.getsockname()[1]}")
            self.assertRaises(NotBilled, remote.ask, "kind", "text", PATIENCE_S)
            silent.listen()
            self.assertRaises(NotRead, remote.ask, "kind", "text", 0.05)

    def test_the_endpoint_bills_a_failure_after_the_answer_and_keeps_to_the_limit(self) -> None:
        endpoint = Endpoint(faults={Fault.FAILED_BILLED: 1.0})
        self.addCleanup(endpoint.server_close)
        for _ in range(3):
            last = endpoint.attempt("triage", "text", 1)
        self.assertIsNone(last.fault)
        self.assertEqual(len(endpoint.bill), 3)
        usd = endpoint.bill[0].input_tokens * INPUT_TOKEN_USD + OUTPUT_TOKEN_USD
        self.assertAlmostEqual(endpoint.bill[0].cost_usd, usd)

    def test_the_dearest_reply_has_a_token_for_each_byte_and_the_longest_answer(self) -> None:
        tokens = PROMPT_TOKENS + 100
        usd = tokens * INPUT_TOKEN_USD + MAX_OUTPUT_TOKENS * OUTPUT_TOKEN_USD
        self.assertEqual(dearest(100), Reply("", tokens, usd))

    def test_the_ledger_has_the_latest_answer_and_what_was_paid_since_a_day(self) -> None:
        ledger = Ledger(self.file)
        self.addCleanup(ledger.close)
        days = ["2024-02-28", "2024-02-29", "2024-03-01"]
        replies = [Reply("accept", 5, 0.5), Reply("decline", 5, 0.25), dearest(100)]
        with mock.patch.object(ledger_module, "utc_today", side_effect=days):
            for reply in replies:
                ledger.record("request", reply)
        self.assertEqual(ledger.answer("request"), Reply("decline", 5, 0.25, cached=True))
        self.assertIsNone(ledger.answer("another"))
        self.assertEqual(ledger.spent_since(days[1]), 0.25 + replies[2].cost)
        with mock.patch.dict(os.environ, XDG_CACHE_HOME=str(self.file)):
            self.assertRaises(LedgerError, default_ledger)

    def test_a_day_is_that_of_utc_everywhere(self) -> None:
        self.addCleanup(time.tzset)
        for zone in ("UTC-14", "UTC+12"):
            with mock.patch.dict(os.environ, TZ=zone):
                time.tzset()
                before, today = datetime.now(timezone.utc).date(), utc_today()
                after = datetime.now(timezone.utc).date()
                self.assertIn(today, (before.isoformat(), after.isoformat()))

    def test_whoever_waits_for_a_key_is_woken_when_it_is_given_back(self) -> None:
        locks = KeyedLock()

        def hold(key: str) -> None:
            with locks.hold(key):
                pass

        with ThreadPoolExecutor(2) as pool, locks.hold("one"):
            with locks.hold("two"):
                waits = [pool.submit(hold, key) for key in ("one", "two")]
                time.sleep(0.05)
            waits[1].result(PATIENCE_S)
            self.assertFalse(waits[0].done())

    def test_a_line_is_replaced_whole_and_a_warning_stands_above_it(self) -> None:
        terminal = Terminal()
        progress = Progress(terminal)
        progress.show("a long line")
        progress.show("short")
        progress.emit(logging.LogRecord("", 0, "", 0, "of %s", ("today",), None))
        lines = ["", "", "a long line", " " * 11, "short", " " * 5, "batch_pass: of today\n"]
        self.assertEqual(terminal.getvalue().split("\r"), lines)

    def test_a_tools_question_is_told_with_its_price(self) -> None:
        client: Any = mock.Mock()
        for reply, told in (
            (Reply("accept", 5, 0.5), r"^answered in \d\.\d\d s for \$0\.500000$"),
            (Reply("accept", 5, 0.5, cached=True), "from the cache$"),
            (DecisionTimeout("late"), "^not answered: late$"),
            (LedgerError("full"), "^not answered: full$"),
        ):
            client.ask.side_effect = [reply]
            self.assertRegex(ask_as_tool(client, never), told)
        left_s = client.ask.call_args.args[1] - time.monotonic()
        self.assertTrue(0.0 < left_s <= DEADLINE_S)

    def test_a_pass_has_as_many_threads_as_the_command_says(self) -> None:
        arguments = ["--ledger", str(self.file), "--threads", "5"]
        before = signal.getsignal(signal.SIGINT)
        self.addCleanup(signal.signal, signal.SIGINT, before)
        with mock.patch.object(BatchPass, "run") as run, redirect_stdout(StringIO()):
            main(arguments)
        self.assertEqual(run.call_args.args[0], 5)

    def test_the_report_compares_the_bill_with_what_was_counted(self) -> None:
        tally = Tally(paid=2, paid_usd=0.5, unread=1, unread_usd=0.25)
        for usd, said in (
            (0.75, "which is what was counted"),
            (0.625, r"\$0.125000 less: an answer never read is counted at its dearest"),
            (0.25, r"\$0.500000 less than was counted"),
            (1.0, r"\$0.250000 more than was counted: has it other clients\?"),
        ):
            counted, billed = bill(tally, Billed(Bill(4, 2.0), Bill(7, 2.0 + usd)))
            self.assertRegex(
                counted, r"0.750000: 2 calls paid \$0.500000, 1 answers never read \$0.25"
            )
            self.assertRegex(billed, rf"\${usd:.6f} for 3 calls by the endpoint, {said}$")
        for unknown in (Billed(None, Bill(1, 1.0)), Billed(Bill(1, 1.0), None)):
            self.assertRegex(bill(tally, unknown)[1], "unknown: the endpoint does not tell$")

    def test_the_summary_tells_what_was_used_and_why_requests_are_undecided(self) -> None:
        day = DailySpend(1.0, utc_today, ledger=None)
        client: Any = mock.Mock(day=day)
        batch: Any = BatchPass(client, [Request("one"), Request("two"), Request("three")], 9, 90)
        batch.replies[:2] = [dearest(1), dearest(2)]
        budget, tally = batch.budget, Tally(paid=1, retries=7)
        budget.calls, budget.cache_hits, budget.in_flight, budget.input_tokens = 4, 1, 3, 5
        day.charge(Reply("", 0, 0.75))
        line = progress_line(batch, client, 1.0)
        self.assertEqual(
            line, "$0.7500 of $1.0000 today, 2/3 decided, 3 in flight, 4 paid, 1 cached"
        )

        def told() -> str:
            return "\n".join(summary(batch, client, tally, 1.0, self.file, 2.0))

        for part in ("2 of 3 decided in 2.0 s: 1 paid, 1 from", "4 of 9 calls, 5 of 90 input"):
            self.assertIn(part, told())
        for part in ("Retries   7", "not passed", "Undecided 1: calls in flight held the last"):
            self.assertIn(part, told())
        self.assertNotIn("no call was paid", told())
        tally.paid = 0
        self.assertIn("no call was paid", told())
        budget.cache_hits = 0
        self.assertIn("no call was paid", told())
        batch.interrupted, batch.ledger_failure, batch.unavailable = True, "full", "down"
        budget.calls, budget.input_tokens = 9, 90
        day.charge(Reply("", 0, 0.5))
        self.assertIn("passed by $0.250000", told())
        reasons = "interrupted ledger endpoint --cap --max-calls --max-tokens".split()
        self.assertRegex(told(), "Undecided 1: .*" + ".*".join(reasons))
