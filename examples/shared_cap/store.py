"""The rows of leases and days in an SQL database, each report one transaction."""

from __future__ import annotations

from abc import ABC, abstractmethod
from collections.abc import Generator
from contextlib import contextmanager
from dataclasses import astuple
from typing import Any

from .lease import DAY_S, Answer, Day, Lease, Report, day_of, renewed

_TABLES = (
    "CREATE TABLE IF NOT EXISTS clock (latest_s DOUBLE PRECISION NOT NULL)",
    "INSERT INTO clock SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM clock)",
    "CREATE TABLE IF NOT EXISTS days (day TEXT PRIMARY KEY,"
    " counted_nano_usd BIGINT NOT NULL, settled_nano_usd BIGINT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS leases (name TEXT PRIMARY KEY, day TEXT NOT NULL,"
    " needed_nano_usd BIGINT NOT NULL, granted_nano_usd BIGINT NOT NULL,"
    " settled_nano_usd BIGINT NOT NULL, sequence BIGINT NOT NULL,"
    " expires_s DOUBLE PRECISION NOT NULL)",
    "CREATE INDEX IF NOT EXISTS leases_in_need ON leases (expires_s)"
    " WHERE needed_nano_usd > settled_nano_usd",
)
_LEASES = (
    "SELECT name, day, needed_nano_usd, granted_nano_usd, settled_nano_usd, sequence, expires_s"
    " FROM leases WHERE"
)
_OVERDUE = f"{_LEASES} needed_nano_usd > settled_nano_usd AND expires_s < ?"
_WRITE_LEASE = (
    "INSERT INTO leases VALUES (?, ?, ?, ?, ?, ?, ?) ON CONFLICT (name) DO UPDATE SET"
    " needed_nano_usd = excluded.needed_nano_usd, granted_nano_usd = excluded.granted_nano_usd,"
    " settled_nano_usd = excluded.settled_nano_usd, sequence = excluded.sequence,"
    " expires_s = excluded.expires_s"
)
_WRITE_DAY = (
    "INSERT INTO days VALUES (?, ?, ?) ON CONFLICT (day) DO UPDATE SET"
    " counted_nano_usd = excluded.counted_nano_usd, settled_nano_usd = excluded.settled_nano_usd"
)


class StoreUnreachable(Exception):
    """The store did not answer; the text says why. Whether it took the report in is not known."""


class Store(ABC):
    """Where all processes that share a cap keep their leases. One thread uses one store object.

    An operation that fails closes the connection, and the next one connects anew.
    """

    _BEGIN: tuple[str, ...]  # the statements that begin a transaction and keep all others out
    _NOW: str  # an expression: the store's clock, in seconds since the epoch
    _ERRORS: type[Exception]

    def __init__(self) -> None:
        self._connection: Any = None
        self.transactions = self.statements = 0  # how many there were

    def renew(self, report: Report, *, cap: int, term_s: float) -> Answer:
        """Take ``report`` in, and answer with its lease and day as they then stand.

        A name that is not known yet becomes a lease of today. Raises ``StoreUnreachable``.
        """
        with self._transaction():
            now_s = self._now_s()
            today = day_of(now_s)
            lease = self._lease(report.name) or Lease(report.name, today)
            day = self._day(lease.day)
            lease, day = renewed(report, lease, day, cap=cap, now_s=now_s, term_s=term_s)
            self._execute(_WRITE_LEASE, astuple(lease))
            self._execute(_WRITE_DAY, astuple(day))
            overdue = self._execute(_OVERDUE, (now_s,)).fetchall()
            others = tuple(Lease(*row) for row in overdue)
        return Answer(lease, day, today, DAY_S - now_s % DAY_S, others)

    def day(self, day: str) -> Day:
        """What is counted and settled of ``day``, ``YYYY-MM-DD``. Raises ``StoreUnreachable``."""
        with self._transaction():
            return self._day(day)

    def today(self) -> str:
        """The UTC date on the store's clock. Raises ``StoreUnreachable``."""
        with self._transaction():
            return day_of(self._now_s())

    def close(self) -> None:
        """Close the connection, if there is one; what was not committed is undone."""
        connection, self._connection = self._connection, None
        if connection is not None:
            connection.close()

    @abstractmethod
    def _connect(self) -> Any:
        """A new connection, in which each statement is a transaction unless one is begun."""

    @contextmanager
    def _transaction(self) -> Generator[None, None, None]:
        """A transaction around the block, with the tables there; raises ``StoreUnreachable``."""
        self.transactions += 1
        try:
            tables: tuple[str, ...] = ()
            if self._connection is None:
                self._connection, tables = self._connect(), _TABLES
            for statement in self._BEGIN + tables:
                self._execute(statement)
            yield
            self._execute("COMMIT")
        except self._ERRORS as error:
            self.close()
            raise StoreUnreachable(f"{type(error).__name__}: {error}".strip()) from error
        except BaseException:
            self.close()
            raise

    def _execute(self, statement: str, values: tuple[Any, ...] = ()) -> Any:
        """The cursor of one statement, whose ``?`` stand for ``values``."""
        self.statements += 1
        return self._connection.execute(statement, values)

    def _now_s(self) -> float:
        """The store's clock, which never goes back. Called when the transaction has begun."""
        later = f"CASE WHEN latest_s < {self._NOW} THEN {self._NOW} ELSE latest_s END"
        moved = self._execute(f"UPDATE clock SET latest_s = {later} RETURNING latest_s")
        (latest_s,) = moved.fetchone()
        return float(latest_s)

    def _lease(self, name: str) -> Lease | None:
        row = self._execute(f"{_LEASES} name = ?", (name,)).fetchone()
        return row and Lease(*row)

    def _day(self, day: str) -> Day:
        query = "SELECT day, counted_nano_usd, settled_nano_usd FROM days WHERE day = ?"
        row = self._execute(query, (day,)).fetchone()
        return Day(*row) if row else Day(day)
