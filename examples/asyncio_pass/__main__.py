"""The command: a batch pass of many coroutines at once."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import signal
import threading
import time
from collections import Counter
from datetime import datetime, timezone

from engines.decision_bounds import DailySpend, DecisionError, RunBudget

from .admission import open_to_loops
from .client import DecisionClient, Request
from .heartbeat import Heartbeat
from .local_endpoint import local_endpoint
from .remote import Remote

_KINDS = ("triage", "route", "refund", "moderate")


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="asyncio_pass", description="Decide requests at a metered endpoint, all at once."
    )
    add = parser.add_argument
    add("--calls", metavar="N", type=int, default=1000, help="coroutines (%(default)s)")
    add("--cap", metavar="USD", type=float, default=0.5, help="daily cost cap (%(default)s)")
    add("--max-calls", metavar="N", type=int, default=1500, help="paid calls (%(default)s)")
    add("--max-tokens", metavar="N", type=int, default=60_000, help="input tokens (%(default)s)")
    add("--endpoint", metavar="URL", help="else one that this command serves")
    return parser


def _utc_today() -> str:
    return datetime.now(timezone.utc).date().isoformat()


async def _run(options: argparse.Namespace, url: str) -> None:
    """Run the pass until every request is decided or given up, and print the report."""
    stopped = threading.Event()
    # Calls in flight settle, and waiting calls give up.
    asyncio.get_running_loop().add_signal_handler(signal.SIGINT, stopped.set)
    budget = open_to_loops(
        RunBudget(options.max_calls, options.max_tokens, should_stop=stopped.is_set)
    )
    day = open_to_loops(DailySpend(options.cap, _utc_today, ledger=None))
    requests = [
        Request(_KINDS[number % len(_KINDS)], f"does case {number} need a person to look at it")
        for number in range(options.calls)
    ]
    started = time.monotonic()
    async with Remote(url) as remote, Heartbeat() as beat:
        client = DecisionClient(remote, budget, day)
        ended = await asyncio.gather(
            *(client.decide(request) for request in requests), return_exceptions=True
        )
    took_s = time.monotonic() - started
    errors = [each for each in ended if isinstance(each, BaseException)]
    for error in errors:
        if not isinstance(error, DecisionError):
            raise error
    used, why = budget.summary(), Counter(str(error) for error in errors)
    print(f"Requests  {len(ended) - len(errors)} of {len(ended)} decided in {took_s:.1f} s")
    for reason, count in why.most_common(4):
        print(f"          {count} not: {reason}")
    print(
        f"Pass      {used['calls']} of {used['max_calls']} calls,"
        f" {used['input_tokens']} of {used['max_tokens']} input tokens, ${used['cost_usd']:.6f}"
    )
    print(f"Today     ${day.spent():.6f} of ${options.cap:.6f} spent")
    print(
        f"Loop      late by {beat.latest_s * 1000:.0f} ms at most, after"
        f" {beat.longest_work_s * 1000:.0f} ms of work; threads: {threading.active_count()}"
    )


def main() -> None:
    """Run one pass as the command line asks."""
    options = _parser().parse_args()
    with contextlib.ExitStack() as opened:
        url = options.endpoint or opened.enter_context(local_endpoint())
        asyncio.run(_run(options, url))


if __name__ == "__main__":
    main()
