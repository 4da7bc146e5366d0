"""What shows of a pass: its progress in one line, and its summary."""

from __future__ import annotations

from examples.batch_pass.batch import BatchPass
from examples.batch_pass.client import DecisionClient
from examples.batch_pass.ledger import utc_today
from examples.batch_pass.tally import Tally


def progress_line(batch: BatchPass, client: DecisionClient, cap: float) -> str:
    """Say how far ``batch`` is; ``cap`` is the daily cap in USD."""
    budget = batch.budget
    return (
        f"{batch.decided}/{len(batch.requests)} decided, {budget.in_flight} in flight,"
        f" {budget.calls} paid, {budget.cache_hits} cached,"
        f" ${client.day.spent():.4f} of ${cap:.4f} today"
    )


def summary(
    batch: BatchPass, client: DecisionClient, tally: Tally, cap: float, took_s: float
) -> list[str]:
    """Return the report on a pass that took ``took_s`` seconds, line by line; ``cap`` in USD."""
    used = batch.budget.summary()
    spent = client.day.spent()
    over = spent - cap
    undecided = len(batch.requests) - batch.decided
    lines = [
        f"Requests  {batch.decided} of {len(batch.requests)} decided in {took_s:.1f} s:"
        f" {used['calls']} paid, {used['cache_hits']} from the cache",
        f"Pass      {used['calls']} of {used['max_calls']} calls,"
        f" {used['input_tokens']} of {used['max_tokens']} input tokens, ${used['cost_usd']:.6f}",
        f"Waited    {tally.waited_for_tokens_s:.1f} s for tokens,"
        f" {tally.waited_for_cap_s:.1f} s for the cap, all threads together",
        f"Retries   {tally.retries}; {tally.unread} replies never read,"
        f" counted at ${tally.unread_usd:.6f}",
        f"Today     ${spent:.6f} of ${cap:.6f} spent (UTC {utc_today()})",
        f"Cap       passed by ${over:.6f}" if over > 0 else "Cap       not passed",
    ]
    if undecided:
        lines.insert(1, f"Undecided {undecided}: {_why_undecided(batch, spent, cap)}")
    return lines


def _why_undecided(batch: BatchPass, spent: float, cap: float) -> str:
    """Say what kept requests from their reply; ``spent`` and ``cap`` are today's, in USD."""
    budget = batch.budget
    reasons = {
        "the pass was interrupted": batch.interrupted,
        "the ledger failed": bool(batch.ledger_failure),
        "the endpoint failed": bool(batch.unavailable),
        "the daily cap is reached (--cap)": spent >= cap,
        "no call is left (--max-calls)": budget.calls >= budget.max_calls,
        "no token is left (--max-tokens)": budget.input_tokens >= budget.max_tokens,
    }
    # A call is refused as well while calls in flight hold the last slots, and those may fail.
    held = "calls in flight held the last call slots"
    return ", ".join(reason for reason, holds in reasons.items() if holds) or held
