"""A model of the leases: processes, their messages and the store's rows, in whole units of money.

The store's part is ``lease.renewed`` and what a process asks for is ``lease.needed``: the functions
that decide in production. The rest is what the processes, and the world around them, may do.
"""

from __future__ import annotations

from collections.abc import Iterator
from functools import lru_cache
from typing import NamedTuple

from ..lease import DAY_S, LAST, Day, Lease, Report, day_of, needed, renewed, usable

DEAREST = 2  # what a call holds: it costs that, or less
AHEAD = 1  # how far ahead the journal is written
SIZE = 2  # what is leased ahead
_DAYS = (day_of(0.0), day_of(DAY_S))
_IN_TIME, _OVERDUE = 1.0, 0.0


class Row(NamedTuple):
    """A lease's row, and whether it is overdue."""

    day: int
    needed: int
    granted: int
    settled: int
    sequence: int
    expires_s: float

    @property
    def counted(self) -> int:
        return max(self.granted, self.settled)


class Sent(NamedTuple):
    """A report on its way to the store."""

    sequence: int
    settled: int
    need: int


class Answered(NamedTuple):
    """An answer on its way back."""

    granted: int
    over: bool  # whether the lease's day is


class Holder(NamedTuple):
    """A lease as its process has it, and its row. The sequence of the last report is always 0."""

    row: Row | None = None
    cap: int = 0
    granted: int = 0
    settled: int = 0
    in_flight: tuple[int, ...] = ()  # what each call holds
    noted: int = 0
    trip: Sent | Answered | None = None
    late: Sent | None = None  # a report that its process gave up, and that may still arrive
    heard: bool = True  # whether the last report was answered
    ended: bool = False

    @property
    def spent(self) -> int:
        """What its calls may have cost in all."""
        return self.settled + sum(self.in_flight)

    @property
    def concluded(self) -> bool:
        """Whether a survivor has told the store what its journal said."""
        return self.row is not None and self.row.sequence == LAST


class Process(NamedTuple):
    """A process and its leases, of which the last is the one that it admits calls under."""

    alive: bool = True
    leases: tuple[Holder, ...] = (Holder(),)


class World(NamedTuple):
    """What the processes share, as one of them sees it."""

    cap: int
    calls_at_once: int
    holds: tuple[int, ...]
    late: bool
    begins: bool
    today: int
    others: tuple[tuple[int, int], tuple[int, int]]  # by day: their rows' counted and settled

    def after(self, process: Process) -> Iterator[Process]:
        """What each event makes of ``process``."""
        for at, lease in enumerate(process.leases):
            changes = [*self._of_network(process, lease)]
            if process.alive:
                changes += self._of_holder(lease)
                if at == len(process.leases) - 1:
                    changes += self._called(lease)
            else:
                changes += self._of_survivors(process, lease)
            for changed in changes:
                leases = process.leases[:at] + (_ranked(changed),) + process.leases[at + 1 :]
                yield process._replace(leases=leases)
        if process.alive:
            yield Process(False, tuple(_crashed(lease) for lease in process.leases))
            if self.begins and process.leases[-1].ended:
                yield process._replace(leases=(*process.leases, Holder()))

    def _called(self, lease: Holder) -> Iterator[Holder]:
        """A call is admitted, and noted in the journal before it leaves."""
        room = lease.spent < lease.cap and len(lease.in_flight) < self.calls_at_once
        for hold in self.holds if room else ():
            called = lease._replace(in_flight=tuple(sorted((*lease.in_flight, hold))))
            if called.spent > called.noted:
                ahead = min(called.spent + AHEAD, called.granted)
                called = called._replace(noted=max(called.spent, ahead))
            yield called

    def _of_holder(self, lease: Holder) -> Iterator[Holder]:
        """A call settles; a report is made; an answer is taken in."""
        for at, hold in enumerate(lease.in_flight):
            ended = lease._replace(in_flight=lease.in_flight[:at] + lease.in_flight[at + 1 :])
            yield ended
            yield ended._replace(settled=lease.settled + hold)
        if lease.trip is None:
            for busy in (False,) if lease.ended else (False, True):
                need = needed(lease.spent, lease.granted, SIZE, busy=busy)
                told = lease.row and (lease.row.settled, lease.row.granted)
                if not lease.heard or told != (lease.settled, need) or lease.granted != need:
                    asking = lease if busy else lease._replace(cap=0)
                    yield _sent(asking, Sent(0, lease.settled, need))
        if isinstance(lease.trip, Answered):
            granted, over = lease.trip
            over = lease.ended or over
            cap = usable(granted, lease.spent, over=over)
            taken = lease._replace(granted=granted, cap=cap, ended=over)
            yield taken._replace(trip=None, heard=True, noted=lease.spent)
            yield lease._replace(trip=None, heard=False)

    def _of_network(self, process: Process, lease: Holder) -> Iterator[Holder]:
        """A report arrives, is lost, or is given up and may arrive later."""
        if isinstance(lease.trip, Sent):
            arrived = self._arrived(process, lease, lease.trip)
            assert arrived.row
            answer = Answered(arrived.row.granted, arrived.row.day != self.today)
            yield arrived._replace(trip=answer)
            yield lease._replace(trip=None, heard=False)
            if self.late and lease.late is None:
                yield lease._replace(trip=None, heard=False, late=lease.trip)
        if lease.late:
            yield self._arrived(process, lease, lease.late)._replace(late=None)

    def _of_survivors(self, process: Process, lease: Holder) -> Iterator[Holder]:
        """The lease of a dead process is overdue; a survivor reports what its journal says."""
        if lease.row and not lease.concluded:
            if lease.row.expires_s == _IN_TIME:
                yield lease._replace(row=lease.row._replace(expires_s=_OVERDUE))
            elif lease.row.needed > lease.row.settled:
                yield self._arrived(process, lease, Sent(LAST, lease.noted, lease.noted))

    def _arrived(self, process: Process, lease: Holder, sent: Sent) -> Holder:
        """The store has taken a report in."""
        before = lease.row or Row(self.today, 0, 0, 0, -1, _IN_TIME)
        counted, settled = self.others[before.day]
        own = [each.row for each in process.leases if each.row and each.row.day == before.day]
        counted += sum(row.counted for row in own)
        settled += sum(row.settled for row in own)
        row, day = _decided(sent, before, counted, settled, self.cap, self.today)
        # The store keeps the sums of a day by adding and subtracting: they stay those of its rows.
        assert day.counted == counted + row.counted - before.counted
        assert day.settled == settled + row.settled - before.settled
        beside = counted - (lease.row.counted if lease.row else 0)
        assert row.granted <= max(before.granted, self.cap - beside), "the cap has no room"
        if row.day != self.today:
            assert row.granted <= before.granted, "a day that is over is leased"
        return lease._replace(row=row)


@lru_cache(maxsize=None)
def _decided(
    sent: Sent, row: Row, counted: int, settled: int, cap: int, today: int
) -> tuple[Row, Day]:
    lease = Lease("", _DAYS[row.day], *row[1:])
    lease, day = renewed(
        Report("", *sent),
        lease,
        Day(lease.day, counted, settled),
        cap=cap,
        now_s=today * DAY_S,
        term_s=1.0,
    )
    if lease.sequence == row.sequence:
        return row, day
    # How much more is needed than is settled makes no difference.
    needs = min(lease.needed, lease.settled + 1)
    return Row(row.day, needs, lease.granted, lease.settled, lease.sequence, _IN_TIME), day


def _sent(lease: Holder, report: Sent) -> Holder:
    """A report that all before it are behind."""
    row, late = lease.row, lease.late
    return lease._replace(
        trip=report,
        row=row and row._replace(sequence=row.sequence - 3),
        late=late and late._replace(sequence=late.sequence - 3),
    )


def _ranked(lease: Holder) -> Holder:
    """The same with the least numbers for what came before what: the states stay finite."""
    row, late = lease.row, lease.late
    if row and late and late.sequence <= row.sequence:
        return _ranked(lease._replace(late=None))  # It will change nothing.
    if late and late.sequence < 0:
        late = late._replace(sequence=-1)
    if row and row.sequence < 0:
        row = row._replace(sequence=-2)
    return lease._replace(row=row, late=late)


def _crashed(lease: Holder) -> Holder:
    """What is left: the row, the journal, a report under way, and what calls may have cost."""
    late = lease.trip if isinstance(lease.trip, Sent) else lease.late
    return Holder(row=lease.row, settled=lease.spent, noted=lease.noted, late=late)
