"""A model of the leases: processes, their messages and the store's rows, in whole units of money.

The store's part is ``lease.renewed`` and what a process asks for is ``lease.needed``: the functions
that decide in production. The rest is what the processes, and the world around them, may do.
"""

from __future__ import annotations

from collections.abc import Iterator
from functools import lru_cache
from operator import add
from typing import NamedTuple

from ..lease import DAY_S, LAST, Day, Lease, Report, day_of, needed, renewed, usable

DEAREST = 2  # what a call holds: it costs that, or less
AHEAD = 1  # how far ahead the journal is written
SIZE = 2  # what is leased ahead
_DAYS = (day_of(0.0), day_of(DAY_S))
_IN_TIME, _OVERDUE = 1.0, 0.0

Rows = tuple[int, int, int, int]  # counted and settled of one day, and of the next


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


class Sums(NamedTuple):
    """What the leases of some processes come to, on one day."""

    granted: int = 0
    counted: int = 0
    settled: int = 0
    spent: int = 0  # by the processes, whatever the store knows of it
    passed: int = 0  # leases whose calls have spent more than was granted


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
        assert (
            row.granted <= before.granted or row.day == self.today
        ), "a day that is over is leased"
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


def _check(process: Process) -> None:
    """Assert what is guaranteed of each process."""
    for lease in process.leases:
        granted, settled = (lease.row.granted, lease.row.settled) if lease.row else (0, 0)
        assert lease.cap <= granted, "a process uses what it was not granted"
        assert lease.spent <= lease.noted, "a call is not in the journal"
        if lease.concluded:
            assert lease.spent <= settled == lease.noted, "what was spent does not count"
            assert granted <= settled, "what was not spent is not given back"
        else:
            doubtful = lease.spent > settled
            assert not doubtful or lease.row and lease.row.needed > settled, "nobody will look"
            assert settled <= lease.settled, "more is settled than calls cost"
            assert lease.spent <= granted + DEAREST - 1, "a lease is passed by more than a call"
        if lease.ended:
            assert lease.cap == 0, "a lease that is over admits calls"
        if lease.ended and not lease.in_flight:
            need = needed(lease.spent, lease.granted, SIZE, busy=False)
            assert need == lease.settled, "a lease that is over is not given back"
            if lease.heard and not lease.trip and lease.granted <= settled:
                assert granted <= settled == lease.settled, "a lease that is over holds something"


def _sums(process: Process, day: int) -> Sums:
    sums = Sums()
    for lease in process.leases:
        if lease.row and lease.row.day == day:
            row = lease.row
            passed = lease.spent > row.granted
            added = (row.granted, row.counted, row.settled, lease.spent, passed)
            sums = Sums(*map(add, sums, added))
    return sums


class Explorer:
    """Goes through every state that some processes can come to, and checks each."""

    def __init__(
        self,
        processes: int,
        cap: int,
        *,
        calls_at_once: int = 1,
        late: bool = False,
        midnight: bool = False,
        begins: bool = False,
    ) -> None:
        """What may happen beside calls, settles, reports, losses, crashes and expiry.

        ``calls_at_once`` under one lease hold 1 or ``DEAREST``, one alone always the latter.
        ``late``: a report that was given up arrives after all. ``midnight``: the day ends.
        ``begins``: a process whose lease has ended begins another; without it, what is explored are
        the leases of one day at a time, which share nothing with those of the next.
        """
        self._cap, self._midnight, self._late, self._begins = cap, midnight, late, begins
        self._calls_at_once = calls_at_once
        self._holds = (1, DEAREST) if calls_at_once > 1 else (DEAREST,)
        # Processes are kept once each and known by their number.
        self._numbers: dict[Process, int] = {}
        self._processes: list[Process] = []
        self._sums: list[tuple[Sums, Sums]] = []
        self._rows: list[Rows] = []
        self._after: dict[tuple[int, int, Rows], list[int]] = {}
        self._start = (0, *(self._number(Process()),) * processes)

    def states(self) -> int:
        """How many there are. Raises ``AssertionError`` in one that breaks a guarantee."""
        seen, front = {self._start}, [self._start]
        while front:
            for state in self._next(front.pop()):
                if state not in seen:
                    seen.add(state)
                    front.append(state)
                    self._check(state[1:])
        return len(seen)

    def _next(self, state: tuple[int, ...]) -> Iterator[tuple[int, ...]]:
        today, numbers = state[0], state[1:]
        if self._midnight and today == 0:
            yield 1, *numbers
        for at, number in enumerate(numbers):
            others = numbers[:at] + numbers[at + 1 :]
            for changed in self._of_one(number, today, others):
                yield today, *sorted((*others, changed))  # They are alike.

    def _of_one(self, number: int, today: int, others: tuple[int, ...]) -> list[int]:
        """What each event makes of one process beside the others."""
        rows: Rows = (0, 0, 0, 0)
        for other in others:
            a, b = rows, self._rows[other]
            rows = (a[0] + b[0], a[1] + b[1], a[2] + b[2], a[3] + b[3])
        key = number, today, rows
        after = self._after.get(key)
        if after is None:
            world = World(
                self._cap,
                self._calls_at_once,
                self._holds,
                self._late,
                self._begins,
                today,
                (rows[:2], rows[2:]),
            )
            changes = {self._number(changed) for changed in world.after(self._processes[number])}
            after = self._after[key] = list(changes - {number})
        return after

    def _number(self, process: Process) -> int:
        number = self._numbers.get(process)
        if number is None:
            _check(process)
            number = self._numbers[process] = len(self._processes)
            self._processes.append(process)
            first, second = _sums(process, 0), _sums(process, 1)
            self._sums.append((first, second))
            self._rows.append((first.counted, first.settled, second.counted, second.settled))
        return number

    def _check(self, numbers: tuple[int, ...]) -> None:
        """Assert what is guaranteed of all processes together."""
        for day in (0, 1):
            granted = spent = calls = 0
            for number in numbers:
                sums = self._sums[number][day]
                granted += sums.granted
                spent += sums.spent
                calls += sums.passed
            assert granted <= self._cap, "more is granted than the cap"
            assert spent <= self._cap + calls * (
                DEAREST - 1
            ), "the cap is passed by more than calls"
