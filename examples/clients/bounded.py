"""Paid calls, each within the budget of a pass and a daily cap until its bill is known.

Copy this file together with the one for your client library.
"""

from __future__ import annotations

import asyncio
import threading
import time
from collections.abc import AsyncGenerator, Generator
from concurrent.futures import Future, ThreadPoolExecutor
from contextlib import asynccontextmanager, contextmanager
from dataclasses import dataclass

from engines.decision_bounds import DailySpend, DecisionError, RunBudget, Share


@dataclass(frozen=True)
class Reply:
    """What the bounds read of a reply; the cost is in USD."""

    input_tokens: int
    cost: float
    cached: bool = False  # It came from the client's own cache, and costs nothing.


@dataclass(frozen=True)
class Prices:
    """What one token costs, in USD, by the endpoint's price list."""

    input_usd: float
    cache_read_usd: float  # Input that the endpoint finds in its prompt cache.
    cache_write_usd: float  # Input that it puts there.
    output_usd: float
    extra_input_tokens: int = 50  # What the endpoint may add to a question.

    def reply(self, new: int, output: int, cache_read: int = 0, cache_write: int = 0) -> Reply:
        """Return a paid reply with so many tokens of each price."""
        cost = new * self.input_usd + output * self.output_usd
        cost += cache_read * self.cache_read_usd + cache_write * self.cache_write_usd
        return Reply(new + cache_read + cache_write, cost)

    def dearest(self, question: str, max_output_tokens: int) -> Reply:
        """Return the dearest reply that a question in text may have."""
        # A text never has more tokens than bytes.
        tokens = len(question.encode()) + self.extra_input_tokens
        token_usd = max(self.input_usd, self.cache_read_usd, self.cache_write_usd)
        return Reply(tokens, tokens * token_usd + max_output_tokens * self.output_usd)


class AnswerCut(DecisionError):
    """The answer ended before the endpoint said what it used."""


class Call:
    """One call that may be under way: what it is charged with if it ends now."""

    def __init__(self, dearest: Reply) -> None:
        self.paid: Reply | None = dearest
        self.shown = Reply(0, 0.0)
        self.unread = True

    def read(self, reply: Reply) -> None:
        """Charge the call with ``reply``, which was read whole."""
        self.paid, self.unread = reply, False

    def show(self, least: Reply) -> None:
        """Charge the call with no less than ``least``, which its stream has shown so far."""
        self.shown = least
        if self.unread and self.paid is not None and least.cost > self.paid.cost:
            self.paid = least

    @contextmanager
    def free_if(self, *errors: type[Exception]) -> Generator[None, None, None]:
        """Charge the call with nothing if the block ends with one of ``errors``, or due to one."""
        try:
            yield
        except Exception as error:
            if isinstance(error, errors) or isinstance(error.__cause__, errors):
                self.paid, self.unread = None, False
            raise


@dataclass
class Unread:
    """Answers that were never read: the bill for them lies between the two sums, in USD."""

    calls: int = 0
    charged_usd: float = 0.0  # The most that they may cost, which is what the bounds count.
    shown_usd: float = 0.0  # The least: what their streams had shown.


class PaidCalls:
    """Admits the calls of one pass. Any number of threads and tasks may share it."""

    def __init__(self, budget: RunBudget, day: DailySpend) -> None:
        """Bound the calls to what is left of the pass and of the day."""
        self.unread = Unread()
        self._budget, self._day = budget, day
        self._lock = threading.Lock()
        # One thread waits for room on behalf of all tasks, which it admits in the order they came.
        self._admission = ThreadPoolExecutor(1, "admission")

    @contextmanager
    def hold(self, dearest: Reply) -> Generator[Call, None, None]:
        """Hold what ``dearest`` takes of both bounds while the block makes one call.

        However the block ends, the call is charged with what it says was paid. Raises
        ``AnswerCut`` if the block ends well but has read no reply; before the block,
        ``DecisionBudgetExceeded`` or ``DecisionStopped``.
        """
        call, shares = Call(dearest), self._admit(dearest)
        try:
            yield call
        finally:
            self._settle(call, shares)
        _check_read(call)

    @asynccontextmanager
    async def hold_async(self, dearest: Reply) -> AsyncGenerator[Call, None]:
        """Do the same in a task, without keeping its loop from others while it waits for room."""
        call, admitted = Call(dearest), self._admission.submit(self._admit, dearest)
        try:
            shares = await asyncio.wrap_future(admitted)
        except BaseException:
            # A task that is cancelled may be admitted later all the same.
            admitted.add_done_callback(_give_back)
            raise
        try:
            yield call
        finally:
            self._settle(call, shares)
        _check_read(call)

    def _admit(self, dearest: Reply) -> tuple[Share, Share]:
        """Return the shares of the pass and of the day, waiting while calls in flight hold both."""
        of_pass = self._budget.hold(dearest.input_tokens)
        try:
            of_day = self._day.admit(
                lambda: dearest.cost,
                deadline=None,
                clock=time.monotonic,
                stopping=self._budget.stopping,
            )
        except BaseException:
            of_pass.settle(None)
            raise
        return of_pass, of_day

    def _settle(self, call: Call, shares: tuple[Share, Share]) -> None:
        """Give both shares back with what the call is charged with."""
        of_pass, of_day = shares
        paid = call.paid
        if paid is not None and paid.cached:
            # A share that is settled with a cached reply would be held for ever.
            self._budget.charge(paid)
            paid = None
        try:
            of_pass.settle(paid)
        finally:
            of_day.settle(paid)
        if call.unread and paid is not None:
            with self._lock:
                self.unread.calls += 1
                self.unread.charged_usd += paid.cost
                self.unread.shown_usd += call.shown.cost


def _check_read(call: Call) -> None:
    """Raise ``AnswerCut`` if the call ended without a reply."""
    if call.unread:
        raise AnswerCut("the answer ended before the endpoint said what it used")


def _give_back(admitted: Future[tuple[Share, Share]]) -> None:
    """Give back the shares of a task that is gone, if it was admitted."""
    if not admitted.cancelled() and admitted.exception() is None:
        for share in admitted.result():
            share.settle(None)
