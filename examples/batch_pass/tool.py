"""A tool's question: one call beside the pass, with a deadline and without a budget of its own."""

from __future__ import annotations

import time
from typing import Callable

from engines.decision_bounds import DecisionError

from examples.batch_pass.client import DecisionClient, Request
from examples.batch_pass.ledger import LedgerError

DEADLINE_S = 2.0
_QUESTION = Request("tool: may the customer on the line get a replacement today?")


def ask_as_tool(client: DecisionClient, stopping: Callable[[], bool]) -> str:
    """Ask once, and say in words what became of it. ``stopping`` ends a wait for the cap."""
    asked = time.monotonic()
    try:
        reply = client.ask(_QUESTION, asked + DEADLINE_S, stopping)
    except (DecisionError, LedgerError) as error:
        return f"not answered: {error}"
    price = "from the cache" if reply.cached else f"for ${reply.cost:.6f}"
    return f"answered in {time.monotonic() - asked:.2f} s {price}"
