"""The daily cap as the threads of one process see it, and the thread that speaks to the store."""

from __future__ import annotations

import logging
import threading
import time
from collections.abc import Callable
from pathlib import Path

from engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionTimeout,
    DecisionUnavailable,
    PaidReply,
    Share,
    _wait,
)

from .journal import Journal
from .lease import LAST, Lease, Report, nano_usd
from .leased_spend import LeasedSpend
from .store import Store, StoreUnreachable

logger = logging.getLogger(__name__)
_WRITE_S = 1.0  # how long what settles may stay unwritten
_RETRY_S = 0.1  # how long the store is left alone when it had too little, or did not answer
_CLOSED = "the shared daily cap is closed"


class SharedSpend:
    """Bounds what the calls of all processes that share ``store`` cost in each UTC day of its clock.

    Any number of threads may use one. It starts a thread of its own, which a forked child does not
    have: make it after the fork. Leaving its ``with`` block closes it.
    """

    def __init__(
        self,
        cap_usd: float,
        store: Store,
        journals: Path,
        *,
        lease_usd: float | None = None,
        term_s: float = 30.0,
    ) -> None:
        """Nothing is leased before the first call.

        ``store`` is this object's alone. ``journals`` is a local folder, the same for all processes
        of the machine, that is emptied when it starts. ``lease_usd`` is what is leased ahead of the
        calls, a hundredth of the cap if not said; the cost of 100 calls makes one round trip in 50.
        A lease that was not renewed for ``term_s`` seconds is overdue.
        """
        self._cap, self._store, self._journals = nano_usd(cap_usd), store, journals
        self._size = nano_usd(cap_usd / 100 if lease_usd is None else lease_usd)
        self._term_s = term_s
        self._wake, self._closing = threading.Event(), threading.Event()
        self._close_s = 0.0
        self._sent_s: float | None = None  # when the report was sent that is not answered yet
        self._failure = ""
        self._warned: LeasedSpend | None = None
        self._lease = self._new_lease()
        self._ending: list[LeasedSpend] = []
        self._writer = threading.Thread(target=self._write, name="shared cap", daemon=True)
        self._writer.start()

    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """Hold ``bound()`` USD of the cap, as ``DailySpend.admit`` does; it must be finite.

        Waits also for a lease. Raises what that raises, and ``DecisionUnavailable`` where the
        deadline passes and the store cannot be reached, or when this is closed.
        """
        while True:
            lease = self._lease
            spend = lease.spend
            try:
                share = spend.admit(bound, deadline=deadline, clock=clock, stopping=stopping)
            except DecisionBudgetExceeded as refusal:
                if refusal.__traceback__ and refusal.__traceback__.tb_next:
                    raise  # It comes from ``bound``, which has a frame of its own.
                self._wait_for_lease(lease, deadline, clock, stopping)
            except DecisionTimeout as timeout:
                raise self._explained(timeout) from None
            else:
                # The amount is read first: what settles meanwhile is then counted twice, not missed.
                if lease.held.amount + spend._cost > lease.noted_usd:
                    lease.note()
                return share

    def charge(self, reply: PaidReply) -> None:
        """Count the cost of a reply whose call holds no share.

        Raises ``DecisionUnavailable`` when this is closed.
        """
        while not self._closing.is_set():
            lease = self._lease
            with lease.spend._changed:
                if not lease.closed:
                    lease.spend.charge(reply)
                    lease.note()
                    return
        raise DecisionUnavailable(_CLOSED)

    def spent(self) -> float:
        """What the settled calls of all processes cost today, USD, as far as it is known here."""
        return self._lease.day_usd()

    def close(self, timeout_s: float = 5.0) -> None:
        """Refuse further calls, write what was settled and give the rest back.

        Where calls are still in flight, or the store does not answer within about ``timeout_s``,
        what they may have spent stays in the journal and counts.
        """
        self._close_s = time.monotonic() + timeout_s
        self._closing.set()
        self._wake.set()
        self._writer.join()

    def __enter__(self) -> SharedSpend:
        return self

    def __exit__(self, *_exc: object) -> None:
        self.close()

    def _wait_for_lease(
        self,
        lease: LeasedSpend,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> None:
        """Wait, once, until ``lease`` may have room; raises where there is none to wait for."""
        with lease.spend._changed:
            if self._closing.is_set():
                raise DecisionUnavailable(_CLOSED)
            if lease is not self._lease or lease.spend._cost < lease.spend._cap:
                return
            lease.ask_locked()
            if not lease.reached:
                try:
                    _wait(lease.spend._changed, stopping, deadline=deadline, clock=clock)
                except DecisionTimeout as timeout:
                    raise self._explained(timeout) from None
                return
        spent, cap = lease.day_usd(), self._cap / 1e9
        if self._warned is not lease:
            self._warned = lease
            logger.warning(
                "The shared daily cap is reached: $%.4f of $%.2f spent today (UTC)", spent, cap
            )
        raise DecisionBudgetExceeded(
            f"the shared daily cap is reached: ${spent:.4f} of ${cap:.2f} spent today (UTC)"
        )

    def _explained(self, timeout: DecisionTimeout) -> Exception:
        """What a call that ran out of its deadline raises."""
        sent_s = self._sent_s
        if sent_s is not None and time.monotonic() - sent_s > _WRITE_S:
            return DecisionUnavailable("the store of the daily cap does not answer")
        if self._failure:
            return DecisionUnavailable(f"the store of the daily cap fails: {self._failure}")
        return timeout

    def _write(self) -> None:
        """Tell the store what the leases need, until this is closed."""
        while not self._closing.is_set():
            self._wake.wait(min(self._pause_s(), max(0.0, self._lease.until_midnight_s())))
            self._wake.clear()
            self._renew_due()
            if self._failure or self._lease.short:
                self._closing.wait(self._pause_s())
        self._end(self._lease)
        while self._ending and time.monotonic() < self._close_s:
            self._renew_due()
            if self._ending:
                time.sleep(_RETRY_S)
        for lease in self._ending:
            lease.abandon()
        self._store.close()

    def _pause_s(self) -> float:
        """How long the store is left alone unless a call asks for more."""
        scarce = self._lease.short and not self._lease.reached
        return _RETRY_S if self._failure or scarce else min(_WRITE_S, self._term_s / 3)

    def _renew_due(self) -> None:
        """Renew each lease that is due, and drop those that are over."""
        try:
            for lease in dict.fromkeys((*self._ending, self._lease)):
                if lease.due():
                    self._renew(lease)
            if self._lease.ended and not self._closing.is_set():
                over, self._lease = self._lease, self._new_lease()
                self._end(over)
            self._failure = ""
        except Exception as error:  # Whatever it is, the calls depend on this thread.
            if not self._failure:
                unforeseen = not isinstance(error, StoreUnreachable)
                text = "The store of the daily cap fails, calls go on within what is leased: %s"
                logger.warning(text, error, exc_info=unforeseen)
            self._failure = str(error) or type(error).__name__
        self._ending = [lease for lease in self._ending if not lease.close()]

    def _end(self, lease: LeasedSpend) -> None:
        """Send the calls that wait for ``lease`` on, and keep it until its own calls have ended."""
        self._ending.append(lease)
        lease.end()

    def _renew(self, lease: LeasedSpend) -> None:
        """Tell the store of ``lease``, and conclude those that are overdue."""
        self._sent_s = sent_s = time.monotonic()
        try:
            answer = self._store.renew(lease.report(), cap=self._cap, term_s=self._term_s)
        finally:
            self._sent_s = None
        lease.take(answer, cap=self._cap, sent_s=sent_s, term_s=self._term_s)
        for other in answer.overdue:
            self._conclude(other)

    def _conclude(self, lease: Lease) -> None:
        """Count what a lease whose process has ended may have spent, and give the rest back."""
        journal = Journal.abandoned(self._journals, lease.name)
        if journal is not None:
            spent = nano_usd(journal.spent_usd)
            last = Report(lease.name, LAST, settled=spent, need=spent)
            self._store.renew(last, cap=self._cap, term_s=self._term_s)
            journal.remove()

    def _new_lease(self) -> LeasedSpend:
        return LeasedSpend(self._journals, self._size, self._wake.set)
