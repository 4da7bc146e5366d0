"""Goes through every state of the model, and checks in each what is guaranteed."""

from __future__ import annotations

from collections.abc import Iterator
from operator import add
from typing import NamedTuple

from ..lease import needed
from .model import DEAREST, SIZE, Process, World

Rows = tuple[int, int, int, int]  # counted and settled of one day, and of the next


class Sums(NamedTuple):
    """What the leases of some processes come to, on one day."""

    granted: int = 0
    counted: int = 0
    settled: int = 0
    spent: int = 0  # by the processes, whatever the store knows of it
    passed: int = 0  # leases whose calls have spent more than was granted


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
        self._start: tuple[int, ...] = (0, *(self._number(Process()),) * processes)

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
