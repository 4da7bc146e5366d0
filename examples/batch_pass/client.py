"""The decision client: each call it pays for holds a share of every bound it counts against."""

from __future__ import annotations

import math
import threading
import time
from dataclasses import dataclass
from functools import partial
from typing import Callable

from engines.decision_bounds import (
    DailySpend,
    DecisionTimeout,
    DecisionUnavailable,
    RequestRates,
    RunBudget,
    Share,
)

from examples.batch_pass.endpoint import (
    INPUT_TOKEN_USD,
    MAX_OUTPUT_TOKENS,
    OUTPUT_TOKEN_USD,
    PROMPT_TOKENS,
)
from examples.batch_pass.ledger import Ledger, utc_today
from examples.batch_pass.remote import NotBilled, NotRead, Remote, Reply
from examples.batch_pass.tally import Tally

READ_TIMEOUT_S = 1.0
RETRY_PAUSES_S = (0.05, 0.1, 0.2)
CLOSED_S = 30.0  # how long an endpoint that refused a call's last attempt is left alone


@dataclass(frozen=True)
class Request:
    """One question to the endpoint. Its kind is the word before its first colon."""

    text: str

    @property
    def kind(self) -> str:
        """Return the word that names its kind."""
        word, colon, _ = self.text.partition(":")
        return word if colon and word.isidentifier() else "general"

    @property
    def size(self) -> int:
        """Return its length in bytes."""
        return len(self.text.encode())


class DecisionClient:
    """Asks the endpoint, answers repeated requests from the ledger, and keeps to the daily cap.

    Any number of threads may share one client: they share its rates and its cap.
    """

    def __init__(self, remote: Remote, ledger: Ledger, cap: float, tally: Tally) -> None:
        """Start with no rates known; ``cap`` is what the calls of one UTC day may cost, in USD."""
        self.rates = RequestRates()
        self.day = DailySpend(cap, utc_today, ledger.spent_since)
        self._remote = remote
        self._ledger = ledger
        self._tally = tally
        self._asking: dict[str, threading.Lock] = {}
        self._closed_until = -math.inf
        self._closed_because = ""

    def decide(self, request: Request, budget: RunBudget) -> Reply:
        """Decide one request of a batch pass within the pass's budget and the daily cap.

        Raises ``DecisionBudgetExceeded`` when one of them is used up, ``DecisionStopped`` when the
        pass stops, ``DecisionUnavailable`` when the endpoint keeps failing, and ``LedgerError``.
        """

        def attempt() -> Reply:
            with self._share_of_pass(request, budget) as of_pass:
                with self._share_of_day(request, budget) as of_day:
                    reply = self._ask(request, READ_TIMEOUT_S)
                    of_day.settle(reply)
                of_pass.settle(reply)
            return reply

        reply = self._answer(request, attempt)
        if reply.cached:
            budget.charge(reply)
        return reply

    def ask(self, request: Request, deadline: float, stopping: Callable[[], bool]) -> Reply:
        """Decide a tool's request, which has no pass, by ``deadline`` on the monotonic clock.

        Raises as ``decide`` does, and ``DecisionTimeout`` when the deadline has passed.
        """

        def attempt() -> Reply:
            with self.day.admit(
                partial(self._ceiling, request),
                deadline=deadline,
                clock=time.monotonic,
                stopping=stopping,
            ) as of_day:
                left_s = deadline - time.monotonic()
                if left_s <= 0:
                    raise DecisionTimeout("the tool's question ran out of its deadline")
                reply = self._ask(request, min(left_s, READ_TIMEOUT_S))
                of_day.settle(reply)
            return reply

        return self._answer(request, attempt)

    def _answer(self, request: Request, attempt: Callable[[], Reply]) -> Reply:
        """Return the reply from the ledger, else from ``attempt``, tried again while it fails."""
        # Of equal requests at once, one pays and the others then find its answer.
        with self._asking.setdefault(request.text, threading.Lock()):
            cached = self._ledger.answer(request.text)
            if cached is not None:
                return cached
            reply = self._retried(attempt)
            # The shares are settled by now: a day that starts with a settle reads the ledger, and
            # must not find there the very reply that it is about to count.
            self._ledger.record(request.text, reply)
            return reply

    def _retried(self, attempt: Callable[[], Reply]) -> Reply:
        """Make attempts, each with shares of its own, until one is answered or none is left.

        No share is held during the pauses, so that other calls have the room. Once the endpoint
        has failed a call for good, no call asks it until the window ends.
        """
        pauses_s = iter(RETRY_PAUSES_S)
        while True:
            if time.monotonic() < self._closed_until:
                raise DecisionUnavailable(self._closed_because)
            try:
                return attempt()
            except (NotBilled, NotRead) as error:
                pause_s = next(pauses_s, None)
                if pause_s is None:
                    self._closed_because = str(error)
                    self._closed_until = time.monotonic() + CLOSED_S
                    raise DecisionUnavailable(self._closed_because) from error
            with self._tally.lock:
                self._tally.retries += 1
            time.sleep(pause_s)

    def _ask(self, request: Request, timeout_s: float) -> Reply:
        """Make one attempt, while the caller holds its shares."""
        try:
            reply = self._remote.ask(request.kind, request.text, timeout_s)
        except NotRead:
            self._count_unread(request)
            raise
        # Learned before the shares settle: the calls that a settle wakes then know this price.
        self.rates.learn(request.size, request.kind, reply)
        return reply

    def _count_unread(self, request: Request) -> None:
        """Count an attempt that was sent and never read at the most that it may be billed."""
        dearest = Reply("", 0, self._ceiling(request))
        self.day.charge(dearest)
        with self._tally.lock:
            self._tally.unread += 1
            self._tally.unread_usd += dearest.cost
        self._ledger.record(request.text, dearest)

    def _share_of_pass(self, request: Request, budget: RunBudget) -> Share:
        """Return the share of the pass's tokens for one attempt, and count how long it waited."""
        # A text never has more tokens than bytes, which bounds also the calls before any reply.
        tokens = min(self.rates.tokens(request.size), PROMPT_TOKENS + request.size)
        asked = time.monotonic()
        try:
            return budget.hold(tokens)
        finally:
            with self._tally.lock:
                self._tally.waited_for_tokens_s += time.monotonic() - asked

    def _share_of_day(self, request: Request, budget: RunBudget) -> Share:
        """Return the share of the daily cap for one attempt, and count how long it waited."""
        asked = time.monotonic()
        try:
            return self.day.admit(
                partial(self._cost_bound, request),
                deadline=None,
                clock=time.monotonic,
                stopping=budget.stopping,
            )
        finally:
            with self._tally.lock:
                self._tally.waited_for_cap_s += time.monotonic() - asked

    def _cost_bound(self, request: Request) -> float:
        """Return the most the request may cost, in USD; infinite for a kind without a reply."""
        # Never below the client's own price: after one cheap reply, calls that hold no more than it
        # cost would be admitted side by side, and each could pass the cap by what it costs above.
        return max(self.rates.cost(request.size, request.kind), _price(request))

    def _ceiling(self, request: Request) -> float:
        """Return the most that the request may cost, in USD; by price for a kind without a reply.

        A pass leaves such a call unbounded, and so alone, once for each kind. A tool's call has a
        deadline and cannot wait until nobody else asks.
        """
        bound = self._cost_bound(request)
        return bound if math.isfinite(bound) else _price(request)


def _price(request: Request) -> float:
    """Return the most that the request may cost by the client's own price list, in USD."""
    input_usd = (PROMPT_TOKENS + request.size) * INPUT_TOKEN_USD
    return input_usd + MAX_OUTPUT_TOKENS * OUTPUT_TOKEN_USD
