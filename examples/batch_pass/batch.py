"""The batch pass: threads that take requests from one queue until it is empty or the pass stops."""

from __future__ import annotations

from concurrent.futures import ThreadPoolExecutor, wait
from queue import Empty, SimpleQueue
from typing import Callable, Sequence

from engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionUnavailable,
    RunBudget,
)

from examples.batch_pass.client import DecisionClient, Request
from examples.batch_pass.ledger import LedgerError
from examples.batch_pass.remote import Reply

_SHOW_EVERY_S = 0.1


class BatchPass:
    """One pass over ``requests``. A refused call does not end it: cached answers are still used."""

    def __init__(
        self, client: DecisionClient, requests: Sequence[Request], max_calls: int, max_tokens: int
    ) -> None:
        """Bound what the pass may pay for to ``max_calls`` and ``max_tokens`` (input tokens)."""
        self.requests = requests
        self.replies: list[Reply | None] = [None] * len(requests)
        self.budget = RunBudget(max_calls, max_tokens, should_stop=self.stopping)
        self.interrupted = False
        self.unavailable = ""
        self.ledger_failure = ""
        self._client = client
        self._todo: SimpleQueue[int] = SimpleQueue()

    @property
    def decided(self) -> int:
        """Return how many requests have their reply."""
        return sum(reply is not None for reply in self.replies)

    def interrupt(self) -> None:
        """Ask the pass to stop: calls in flight settle, waiting calls give up.

        A signal handler may call it: it takes no lock that the interrupted code could hold.
        """
        self.interrupted = True

    def stopping(self) -> bool:
        """Return whether the pass was asked to stop, or must as it cannot record what it pays."""
        return self.interrupted or bool(self.ledger_failure)

    def run(self, threads: int, show: Callable[[], None]) -> None:
        """Work on ``threads`` threads, and call ``show`` now and then until they are done."""
        for position in range(len(self.requests)):
            self._todo.put(position)
        with ThreadPoolExecutor(threads) as pool:
            workers = [pool.submit(self._work) for _ in range(threads)]
            while wait(workers, timeout=_SHOW_EVERY_S).not_done:
                show()
        for worker in workers:
            worker.result()

    def _work(self) -> None:
        """Decide one request after the other until none is left or the pass stops."""
        while not self.stopping():
            try:
                position = self._todo.get_nowait()
            except Empty:
                return
            self._decide(position)

    def _decide(self, position: int) -> None:
        """Decide the request at ``position``, and keep its reply or what failed."""
        try:
            reply = self._client.decide(self.requests[position], self.budget)
        except (DecisionBudgetExceeded, DecisionStopped):
            return
        except DecisionUnavailable as error:
            self.unavailable = str(error)
        except LedgerError as error:
            self.ledger_failure = str(error)
        else:
            self.replies[position] = reply
