"""The calls of one process under one lease: a ``DailySpend`` whose cap is what is leased."""

from __future__ import annotations

import math
import threading
import time
import uuid
from collections.abc import Callable
from pathlib import Path

from engines.decision_bounds import DailySpend, _Held

from .journal import Journal
from .lease import Answer, Report, nano_usd, needed, usable

_JOURNAL_STEPS = 16  # to a lease's size: how often the journal is written while calls are made


class BoundedSpend(DailySpend):
    """A ``DailySpend``, with the types of those of its fields that a lease reads and writes."""

    _cap: float
    _changed: threading.Condition
    _held: _Held
    _cost: float
    _capped: bool


class LeasedSpend:
    """The spend of one lease, its journal, and what its store knows of it.

    ``spend._changed`` guards everything; operations named ``_locked`` are called with it held. The
    journal is written before a call leaves that would pass what it says, so that it is never below
    what the calls have cost and those in flight hold, as long as none costs more than it held.
    """

    def __init__(self, journals: Path, size: int, asks: Callable[[], None]) -> None:
        """A lease that nothing is granted of. ``asks`` is called when it wants more."""
        self.name = uuid.uuid4().hex
        # A lease is of one day, so its spend never starts another.
        self.spend = BoundedSpend(0.0, self.name.__str__, None)
        self.spend.spent()
        self.spend._capped = True  # It is the lease that refuses, and not the cap that is reached.
        self.held = self.spend._held
        self.noted_usd = 0.0
        self.reached = False  # the cap, as of the last answer
        self.short = False  # whether the last answer granted less than was needed
        self.ended = False
        self.closed = False
        self._journal = Journal.made(journals, self.name)
        self._size, self._asks = size, asks
        self._asked = False
        self._granted = self._needed = self._written = self._reported = self._day_settled = 0
        self._sequence = self._answered = 0
        self._renew_s = self._midnight_s = math.inf

    def note(self) -> None:
        """Write ahead what the next calls may spend, and ask for more when half is used."""
        with self.spend._changed:
            self._note_locked(self._size / _JOURNAL_STEPS / 1e9)
            if self._is_low_locked():
                self.ask_locked()

    def ask_locked(self) -> None:
        """Ask for more, unless that was done already, or an answer is still to come."""
        if not self._asked and self._is_heard_locked():
            self._asked = True
            self._asks()

    def due(self) -> bool:
        """Whether the store is to hear of this lease now."""
        now_s = time.monotonic()
        with self.spend._changed:
            if self._written != nano_usd(self.spend._cost) or not self._is_heard_locked():
                return True
            needless = not self.held.holders or self.ended and self._granted > self._spent_locked()
            if self._granted > self._written and (needless or now_s >= self._renew_s):
                return True
            wanting = self._asked or self.held.holders > 0 and self._is_low_locked()
            return not self.ended and (wanting or now_s >= self._midnight_s)

    def report(self) -> Report:
        """What the store is to hear. What it gives back is not used any more from here on."""
        with self.spend._changed:
            spent = self._spent_locked()
            # While the store does not answer, what is leased is kept.
            lull = not self.held.holders and self._reported == spent
            idle = lull and not self._asked and self._is_heard_locked()
            busy = not (idle or self.ended or time.monotonic() >= self._midnight_s)
            if not busy:
                self.spend._cap = 0.0
            self._asked = False
            self._reported = spent
            self._sequence += 1
            self._needed = needed(spent, self._granted, self._size, busy=busy)
            return Report(self.name, self._sequence, nano_usd(self.spend._cost), self._needed)

    def take(self, answer: Answer, *, cap: int, sent_s: float, term_s: float) -> None:
        """Take in the answer to the last report, which was sent at ``sent_s``; wakes the waiters.

        Ends the lease when its day is over.
        """
        with self.spend._changed:
            self._answered = answer.lease.sequence
            self._granted, self._written = answer.lease.granted, answer.lease.settled
            self._day_settled, self.reached = answer.day.settled, answer.reached(cap)
            self._renew_s, self._midnight_s = sent_s + term_s / 3, sent_s + answer.day_left_s
            self.ended = self.ended or answer.today != answer.lease.day
            spent = self._spent_locked()
            self.spend._cap = usable(self._granted, spent, over=self.ended) / 1e9
            self.short = not self.ended and self._granted < self._needed
            self._note_locked(0.0)
            if self.held.holders and self._is_low_locked() and not (self.short or self.ended):
                self.ask_locked()
            self.spend._changed.notify_all()

    def end(self) -> None:
        """Admit no further call; those in flight go on."""
        with self.spend._changed:
            self.ended = True
            self.spend._cap = 0.0
            self.spend._changed.notify_all()

    def close(self) -> bool:
        """Remove the journal if the store knows all that this lease will ever have spent.

        Answers whether it does.
        """
        with self.spend._changed:
            known = self._is_heard_locked() and self._written == nano_usd(self.spend._cost)
            holds = self.held.holders > 0 or self._granted > self._written
            if holds or not known or not self.ended:
                return False
            self.closed = True
            self._journal.remove()
            return True

    def abandon(self) -> None:
        """Leave the journal to whoever looks for it when the lease is overdue."""
        with self.spend._changed:
            self.closed = True
            self._note_locked(0.0)
            self._journal.close()

    def day_usd(self) -> float:
        """What the settled calls of all processes cost on its day, as far as it knows, USD."""
        with self.spend._changed:
            return (self._day_settled - self._written) / 1e9 + self.spend._cost

    def until_midnight_s(self) -> float:
        """How long its day lasts; infinite before the first answer."""
        return self._midnight_s - time.monotonic()

    def _spent_usd_locked(self) -> float:
        """What the settled calls cost and those in flight hold."""
        return self.held.amount + self.spend._cost

    def _spent_locked(self) -> int:
        """The same in nanodollars."""
        return nano_usd(self._spent_usd_locked())

    def _is_heard_locked(self) -> bool:
        """Whether the last report was answered: else what the store grants is not known."""
        return self._answered == self._sequence

    def _is_low_locked(self) -> bool:
        """Whether less than half of what calls want ahead is left."""
        return self._granted - self._spent_locked() <= self._size // 2

    def _note_locked(self, ahead_usd: float) -> None:
        spent_usd = self._spent_usd_locked()
        noted_usd = max(spent_usd, min(spent_usd + ahead_usd, self._granted / 1e9))
        self._journal.spent_usd = self.noted_usd = noted_usd
