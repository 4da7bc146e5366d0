"""What decides: pure functions of a lease's row, its day's row and what the holder reports.

Amounts are whole nanodollars, so that sums are exact, and all of them are totals of the lease or of
the day: a report that arrives twice, or after a later one, changes nothing.
"""

from __future__ import annotations

from dataclasses import dataclass, replace
from datetime import datetime, timezone

DAY_S = 86_400.0
LAST = 2**63 - 1  # the sequence of a lease's last report: none can follow


def nano_usd(usd: float) -> int:
    """The nearest whole number of nanodollars."""
    return round(usd * 1e9)


@dataclass(frozen=True)
class Lease:
    """The row of a lease: what one process may spend of one day, and has."""

    name: str
    day: str
    needed: int = 0  # more than is settled, as long as calls are in flight or may follow
    granted: int = 0
    settled: int = 0
    sequence: int = 0
    expires_s: float = 0.0  # on the store's clock

    @property
    def counted(self) -> int:
        """What it takes of the day's cap."""
        return max(self.granted, self.settled)

    @property
    def unspent(self) -> int:
        """What its holder may still spend, or may have spent without having reported it."""
        return max(0, self.granted - self.settled)


@dataclass(frozen=True)
class Day:
    """The row of a day: the sums over its leases."""

    day: str
    counted: int = 0
    settled: int = 0


@dataclass(frozen=True)
class Report:
    """What a holder tells the store: what its calls have cost, and what the lease is to cover."""

    name: str
    sequence: int
    settled: int
    need: int


@dataclass(frozen=True)
class Answer:
    """What the store answers, after the report was taken in."""

    lease: Lease
    day: Day
    today: str
    day_left_s: float
    overdue: tuple[Lease, ...]  # leases in need that were not renewed in time

    def reached(self, cap: int) -> bool:
        """Whether ``cap`` is used up for good, as far as the store can know.

        What an overdue lease left unspent may have been spent, so it is no room to wait for.
        """
        doubtful = sum(other.unspent for other in self.overdue if other.day == self.day.day)
        return self.day.settled + doubtful >= cap


def day_of(now_s: float) -> str:
    """The UTC date, ``YYYY-MM-DD``, at ``now_s`` seconds since the epoch."""
    return datetime.fromtimestamp(now_s, timezone.utc).date().isoformat()


def renewed(
    report: Report, lease: Lease, day: Day, *, cap: int, now_s: float, term_s: float
) -> tuple[Lease, Day]:
    """The rows of a lease and of its day after ``report``.

    A lease is granted what it needs as far as the cap allows beside what all others count, never
    less than it needs of what it was granted before, and nothing more once its day is over.
    """
    if report.sequence <= lease.sequence:
        return lease, day  # It was overtaken: the holder has long acted on a later answer.
    room = cap - (day.counted - lease.counted) if lease.day == day_of(now_s) else 0
    after = replace(
        lease,
        needed=report.need,
        granted=min(report.need, max(lease.granted, room)),
        settled=report.settled,
        sequence=report.sequence,
        expires_s=now_s + term_s,
    )
    return after, replace(
        day,
        counted=day.counted + after.counted - lease.counted,
        settled=day.settled + after.settled - lease.settled,
    )


def needed(spent: int, granted: int, size: int, *, busy: bool) -> int:
    """What a lease is to cover when its calls have spent, or hold, ``spent`` of ``granted``.

    A busy holder asks for ``size`` ahead of what is spent once less than half of that is left; one
    that makes no calls gives back what is left.
    """
    if not busy:
        return spent
    return spent + size if granted - spent <= size // 2 else granted


def usable(granted: int, spent: int, *, over: bool) -> int:
    """The cap of a holder's calls: what it is granted, or nothing where nothing of it is left."""
    return granted if granted > spent and not over else 0
