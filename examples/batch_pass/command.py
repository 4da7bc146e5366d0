"""The command line of the batch pass."""

from __future__ import annotations

import argparse
import contextlib
import logging
import math
import os
import signal
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from enum import IntEnum
from pathlib import Path
from typing import NoReturn, Sequence

from examples.batch_pass.batch import BatchPass
from examples.batch_pass.client import READ_TIMEOUT_S, DecisionClient, Request
from examples.batch_pass.endpoint import Endpoint
from examples.batch_pass.ledger import Ledger, LedgerError, default_ledger
from examples.batch_pass.progress import Progress
from examples.batch_pass.remote import Remote
from examples.batch_pass.report import Billed, bill, progress_line, summary
from examples.batch_pass.tally import Tally
from examples.batch_pass.tool import ask_as_tool

_LEDGER = "batch_pass/ledger.sqlite3 in $XDG_CACHE_HOME or ~/.cache"


class ExitStatus(IntEnum):
    """How the command ended. ``--help`` shows the numbers with their names."""

    ALL_DECIDED = 0
    LEDGER_FAILED = 1  # During the pass.
    BAD_INPUT = 2  # Wrong usage, unreadable requests, or no ledger to start with.
    BOUND_REACHED = 3
    ENDPOINT_FAILED = 4
    REPORT_NOT_PRINTED = 5  # The pass is over and recorded all the same.
    INTERRUPTED = 130


class InputError(Exception):
    """The requests cannot be read; the text says why."""


class _Parser(argparse.ArgumentParser):
    """A parser that tells a mistake in one line."""

    def error(self, message: str) -> NoReturn:
        self.exit(ExitStatus.BAD_INPUT, f"{self.prog}: {message} (--help shows the usage)\n")


# A value that one of these refuses is reported under the name of its function.
def usd(text: str) -> float:
    """Return an amount in USD. Raises ``ValueError`` if it is negative or not finite."""
    amount = float(text)
    if not 0.0 <= amount < math.inf:
        raise ValueError
    return amount


def count(text: str) -> int:
    """Return how many calls or tokens. Raises ``ValueError`` if it is negative."""
    number = int(text)
    if number < 0:
        raise ValueError
    return number


def threads(text: str) -> int:
    """Return how many threads. Raises ``ValueError`` if it is not from 1 to 256."""
    number = int(text)
    if not 1 <= number <= 256:
        raise ValueError
    return number


def url(text: str) -> Remote:
    """Return the endpoint at that address. Raises ``ValueError`` if it is no ``http://`` one."""
    return Remote(text)


def _parser() -> argparse.ArgumentParser:
    """Return the parser of the command line, with the exit statuses below its help."""
    statuses = [f"{status:d} {status.name.lower().replace('_', ' ')}" for status in ExitStatus]
    parser = _Parser(
        prog="batch_pass",
        description="Decide the requests of a text file, one a line, at a metered endpoint.",
        epilog=f"exit status: {', '.join(statuses)}",
    )
    add = parser.add_argument
    shipped = Path(__file__).with_name("requests.txt")
    add("file", metavar="FILE", nargs="?", type=Path, default=shipped, help="else one shipped")
    add(
        "--threads",
        metavar="N",
        type=threads,
        default=8,
        help="calls at once, 1 to 256 (%(default)s)",
    )
    add("--cap", metavar="USD", type=usd, default=0.2, help="daily cost cap (%(default)s)")
    add("--max-calls", metavar="N", type=count, default=400, help="paid calls (%(default)s)")
    add("--max-tokens", metavar="N", type=count, default=40_000, help="input tokens (%(default)s)")
    add("--ledger", metavar="PATH", type=Path, help=f"SQLite file, also the cache ({_LEDGER})")
    add("--endpoint", metavar="URL", type=url, help="else one that this command serves")
    add("--decisions", action="store_true", help="print what was decided, in the file's order")
    return parser


def read_requests(path: Path) -> list[Request]:
    """Return the lines of ``path`` that are not blank. Raises ``InputError`` if there are none."""
    requests: list[Request] = []
    number = 0
    try:
        for number, line in enumerate(path.read_bytes().split(b"\n"), start=1):
            text = line.decode("utf-8-sig" if number == 1 else "utf-8").strip()
            if text:
                requests.append(Request(text))
    except OSError as error:
        raise InputError(f"cannot read {path}: {error.strerror}") from error
    except UnicodeDecodeError as error:
        raise InputError(f"cannot read {path}: line {number} is not UTF-8 text") from error
    if not requests:
        raise InputError(f"{path} has no requests: every line is blank")
    return requests


def _printed(lines: Sequence[str]) -> bool:
    """Print to the standard output, and return whether that could be done.

    A reader that hangs up has had enough, and is told nothing more.
    """
    try:
        print("\n".join(lines), flush=True)
    except OSError as error:
        if not isinstance(error, BrokenPipeError):
            print(f"batch_pass: cannot print the report: {error.strerror}", file=sys.stderr)
        # What is left in the buffer must not fail again when the interpreter ends.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return False
    return True


def _status(batch: BatchPass) -> ExitStatus:
    """Return how a pass that is over ended."""
    if batch.ledger_failure:
        return ExitStatus.LEDGER_FAILED
    if batch.decided == len(batch.requests):
        return ExitStatus.ALL_DECIDED
    if batch.interrupted:
        return ExitStatus.INTERRUPTED
    return ExitStatus.ENDPOINT_FAILED if batch.unavailable else ExitStatus.BOUND_REACHED


def _run(options: argparse.Namespace, ledger: Ledger, remote: Remote) -> ExitStatus:
    """Run the pass, with a tool's question beside it, and print the report."""
    tally = Tally()
    progress = Progress()
    logging.basicConfig(level=logging.WARNING, handlers=[progress])
    client = DecisionClient(remote, ledger, options.cap, tally)
    batch = BatchPass(client, options.requests, options.max_calls, options.max_tokens)
    signal.signal(signal.SIGINT, lambda _number, _frame: batch.interrupt())
    billed_before = remote.bill(READ_TIMEOUT_S)
    started = time.monotonic()
    with ThreadPoolExecutor(1) as aside:
        tool = aside.submit(ask_as_tool, client, batch.stopping)
        batch.run(options.threads, lambda: progress.show(progress_line(batch, client, options.cap)))
    took_s = time.monotonic() - started
    billed = Billed(billed_before, remote.bill(READ_TIMEOUT_S))
    progress.show("")

    for failure in filter(None, (batch.ledger_failure, batch.unavailable)):
        print(f"batch_pass: {failure}", file=sys.stderr)
    lines = summary(batch, client, tally, options.cap, ledger.path, took_s)
    if options.decisions:
        decided = ((reply.decision if reply else "-") for reply in batch.replies)
        lines[:0] = [f"{decision:10}{r.text}" for decision, r in zip(decided, batch.requests)]
    lines += [f"Tool      {tool.result()}", *bill(tally, billed)]
    return _status(batch) if _printed(lines) else ExitStatus.REPORT_NOT_PRINTED


def main(arguments: Sequence[str] | None = None) -> ExitStatus:
    """Run one batch pass as ``arguments`` ask, and return how it ended."""
    options = _parser().parse_args(arguments)
    with contextlib.ExitStack() as opened:
        try:
            options.requests = read_requests(options.file)
            ledger = Ledger(options.ledger or default_ledger())
            opened.callback(ledger.close)
            remote = options.endpoint or Remote(opened.enter_context(Endpoint()).url)
        except (InputError, LedgerError, OSError) as error:
            print(f"batch_pass: {error}", file=sys.stderr)
            return ExitStatus.BAD_INPUT
        status = _run(options, ledger, remote)
    return status
