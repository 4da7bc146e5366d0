"""What shows of a pass: its progress in one line, and its summary."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

from examples.batch_pass.batch import BatchPass
from examples.batch_pass.client import DecisionClient
from examples.batch_pass.ledger import utc_today
from examples.batch_pass.remote import Bill
from examples.batch_pass.tally import Tally

_EXACT_USD = 1e-9  # What sums of the same prices in another order may differ by.


@dataclass(frozen=True)
class Billed:
    """What the endpoint said of its bill before the pass and after it, where it tells."""

    before: Bill | None
    after: Bill | None


def progress_line(batch: BatchPass, client: DecisionClient, cap: float) -> str:
    """Say how far ``batch`` is, the money first; ``cap`` is the daily cap in USD."""
    budget = batch.budget
    return (
        f"${client.day.spent():.4f} of ${cap:.4f} today,"
        f" {batch.decided}/{len(batch.requests)} decided, {budget.in_flight} in flight,"
        f" {budget.calls} paid, {budget.cache_hits} cached"
    )


def summary(
    batch: BatchPass, client: DecisionClient, tally: Tally, cap: float, ledger: Path, took_s: float
) -> list[str]:
    """Return the report on a pass that took ``took_s`` seconds, line by line; ``cap`` in USD."""
    used = batch.budget.summary()
    spent = client.day.spent()
    over = spent - cap
    undecided = len(batch.requests) - batch.decided
    paid = batch.decided - used["cache_hits"]
    lines = [
        f"Requests  {batch.decided} of {len(batch.requests)} decided in {took_s:.1f} s:"
        f" {paid} paid, {used['cache_hits']} from the cache",
        f"Pass      {used['calls']} of {used['max_calls']} calls,"
        f" {used['input_tokens']} of {used['max_tokens']} input tokens, ${used['cost_usd']:.6f}",
        f"Waited    {tally.waited_for_tokens_s:.1f} s for tokens,"
        f" {tally.waited_for_cap_s:.1f} s for the cap, all threads together",
        f"Retries   {tally.retries}",
        f"Today     ${spent:.6f} of ${cap:.6f} spent (UTC {utc_today()})",
        f"Cap       passed by ${over:.6f}" if over > 0 else "Cap       not passed",
    ]
    if undecided:
        lines.insert(1, f"Undecided {undecided}: {_why_undecided(batch, spent, cap)}")
    if not tally.paid + tally.unread and (spent or used["cache_hits"]):
        lines.append(
            f"Ledger    no call was paid: what was paid before is in {ledger},"
            " with the answers; another file (--ledger) starts anew"
        )
    return lines


def bill(tally: Tally, billed: Billed) -> list[str]:
    """Return what the pass and the tool's call counted, beside what the endpoint billed."""
    return [
        f"Counted   ${tally.counted_usd:.6f}: {tally.paid} calls paid ${tally.paid_usd:.6f},"
        f" {tally.unread} answers never read ${tally.unread_usd:.6f}",
        f"Billed    {_compared(tally, billed)}",
    ]


def _compared(tally: Tally, billed: Billed) -> str:
    """Say how the endpoint's bill compares with what was counted."""
    if billed.before is None or billed.after is None:
        return "unknown: the endpoint does not tell"
    calls = billed.after.calls - billed.before.calls
    cost = billed.after.cost_usd - billed.before.cost_usd
    said = f"${cost:.6f} for {calls} calls by the endpoint"
    less = tally.counted_usd - cost
    if abs(less) < _EXACT_USD:
        return f"{said}, which is what was counted"
    # An answer that was never read was billed at nothing at least and at its dearest at most.
    if -_EXACT_USD < less < tally.unread_usd + _EXACT_USD:
        return f"{said}, ${less:.6f} less: an answer never read is counted at its dearest"
    if less > 0:
        return f"{said}, ${less:.6f} less than was counted"
    return f"{said}, ${-less:.6f} more than was counted: has it other clients?"


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
