"""The decision client: each attempt that it may pay for holds a share of both bounds."""

from __future__ import annotations

import asyncio
import time
from dataclasses import dataclass

from engines.decision_bounds import DailySpend, DecisionUnavailable, RunBudget

from .admission import admit, hold
from .remote import NotBilled, NotRead, Remote, Reply

RETRY_PAUSES_S = (0.05, 0.1, 0.2)
# The price list, and what the client allows or is told of a call.
INPUT_TOKEN_USD = 3e-6
OUTPUT_TOKEN_USD = 15e-6
PROMPT_TOKENS = 24  # input tokens that the endpoint adds to every request
MAX_OUTPUT_TOKENS = 320


@dataclass(frozen=True)
class Request:
    """One question to the endpoint, of a named kind."""

    kind: str
    text: str

    def dearest(self) -> Reply:
        """Return the most that a call with it can come to; a text has no more tokens than bytes."""
        tokens = PROMPT_TOKENS + len(self.text.encode())
        cost = tokens * INPUT_TOKEN_USD + MAX_OUTPUT_TOKENS * OUTPUT_TOKEN_USD
        return Reply("", tokens, cost)


class DecisionClient:
    """Decides the requests of a pass. Any number of coroutines may use one client.

    Both bounds are open to event loops.
    """

    def __init__(self, remote: Remote, budget: RunBudget, day: DailySpend) -> None:
        self._remote = remote
        self._budget = budget
        self._day = day

    async def decide(self, request: Request) -> Reply:
        """Make attempts until one is answered; nothing is held in the pauses between them.

        Raises ``DecisionBudgetExceeded`` where a bound is used up, ``DecisionStopped`` when the
        pass stops, and ``DecisionUnavailable`` when the last attempt fails.
        """
        for pause_s in RETRY_PAUSES_S:
            try:
                return await self._attempt(request)
            except (NotBilled, NotRead):
                await asyncio.sleep(pause_s)
        try:
            return await self._attempt(request)
        except (NotBilled, NotRead) as error:
            raise DecisionUnavailable(str(error)) from error

    async def _attempt(self, request: Request) -> Reply:
        """Make one attempt, once both bounds have room for the dearest reply to it."""
        dearest = request.dearest()
        of_pass = hold(self._budget, dearest.input_tokens)
        of_day = admit(
            self._day,
            lambda: dearest.cost,
            deadline=None,
            clock=time.monotonic,
            stopping=self._budget.stopping,
        )
        async with of_pass as tokens, of_day as usd:
            # What may be billed is counted, whatever ends the attempt, a cancellation included.
            paid: Reply | None = dearest
            try:
                paid = reply = await self._remote.ask(request.kind, request.text)
            except NotBilled:
                paid = None
                raise
            finally:
                usd.settle(paid)
                tokens.settle(paid)
        return reply
