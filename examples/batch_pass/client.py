"""The decision client: each call it pays for holds a share of every bound it counts against."""

from __future__ import annotations

import math
import time
from dataclasses import dataclass
from typing import Callable

from engines.decision_bounds import (
    DailySpend,
    DecisionTimeout,
    DecisionUnavailable,
    RunBudget,
    Share,
)

from examples.batch_pass.keyed_lock import KeyedLock
from examples.batch_pass.ledger import Ledger, utc_today
from examples.batch_pass.prices import dearest
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

    Any number of threads may share one client: they share its cap.
    """

    def __init__(self, remote: Remote, ledger: Ledger, cap: float, tally: Tally) -> None:
        """Take up the day where ``ledger`` says it stands; ``cap`` is for one UTC day, in USD."""
        self.day = DailySpend(cap, utc_today, ledger.spent_since)
        self._remote = remote
        self._ledger = ledger
        self._tally = tally
        self._asking = KeyedLock()
        self._closed_until = -math.inf
        self._closed_because = ""

    def decide(self, request: Request, budget: RunBudget) -> Reply:
        """Decide one request of a batch pass within the pass's budget and the daily cap.

        Raises ``DecisionBudgetExceeded`` when one of them is used up, ``DecisionStopped`` when the
        pass stops, ``DecisionUnavailable`` when the endpoint keeps failing, and ``LedgerError``.
        """
        most = dearest(request.size)

        def attempt() -> Reply:
            # The pass first: a call that waits for tokens should not hold money meanwhile.
            with self._share_of_pass(most, budget) as of_pass:
                with self._share_of_day(most, budget) as of_day:
                    return self._pay(request, most, READ_TIMEOUT_S, of_day, of_pass)

        reply = self._answer(request, attempt)
        if reply.cached:
            budget.charge(reply)
        return reply

    def ask(self, request: Request, deadline: float, stopping: Callable[[], bool]) -> Reply:
        """Decide a tool's request, which has no pass, by ``deadline`` on the monotonic clock.

        Raises as ``decide`` does, and ``DecisionTimeout`` when the deadline has passed.
        """
        most = dearest(request.size)

        def attempt() -> Reply:
            with self.day.admit(
                lambda: most.cost, deadline=deadline, clock=time.monotonic, stopping=stopping
            ) as of_day:
                left_s = deadline - time.monotonic()
                if left_s <= 0:
                    raise DecisionTimeout("the tool's question ran out of its deadline")
                return self._pay(request, most, min(left_s, READ_TIMEOUT_S), of_day)

        return self._answer(request, attempt)

    def _answer(self, request: Request, attempt: Callable[[], Reply]) -> Reply:
        """Return the reply from the ledger, else from ``attempt``, tried again while it fails."""
        # Of equal requests at once, one pays and the others then find its answer.
        with self._asking.hold(request.text):
            return self._ledger.answer(request.text) or self._retried(attempt)

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

    def _pay(self, request: Request, most: Reply, timeout_s: float, *shares: Share) -> Reply:
        """Make one attempt, settle ``shares`` with what it counts as, and record that as paid.

        It counts as ``most`` from when it may have left until its reply was read, so that an
        attempt that is billed and never read, whatever ended it, takes its money and its tokens.
        """
        paid: Reply | None = most
        try:
            paid = self._remote.ask(request.kind, request.text, timeout_s)
            return paid
        except NotBilled:
            paid = None
            raise
        finally:
            for share in shares:
                share.settle(paid)
            if paid is not None:
                # The shares are settled by now: a day that starts with a settle reads the ledger,
                # and must not find there the very reply that it is about to count.
                self._record(request, paid)

    def _record(self, request: Request, paid: Reply) -> None:
        """Record what an attempt counted as; a reply that was never read has no decision."""
        with self._tally.lock:
            if paid.decision:
                self._tally.paid += 1
                self._tally.paid_usd += paid.cost
            else:
                self._tally.unread += 1
                self._tally.unread_usd += paid.cost
        self._ledger.record(request.text, paid)

    def _share_of_pass(self, most: Reply, budget: RunBudget) -> Share:
        """Return the share of the pass for one attempt, and count how long it waited."""
        asked = time.monotonic()
        try:
            return budget.hold(most.input_tokens)
        finally:
            with self._tally.lock:
                self._tally.waited_for_tokens_s += time.monotonic() - asked

    def _share_of_day(self, most: Reply, budget: RunBudget) -> Share:
        """Return the share of the daily cap for one attempt, and count how long it waited."""
        asked = time.monotonic()
        try:
            return self.day.admit(
                lambda: most.cost,
                deadline=None,
                clock=time.monotonic,
                stopping=budget.stopping,
            )
        finally:
            with self._tally.lock:
                self._tally.waited_for_cap_s += time.monotonic() - asked
