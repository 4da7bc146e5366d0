"""The ledger: what was paid on which day, and the answers that were paid for."""

from __future__ import annotations

import os
import sqlite3
import threading
from contextlib import contextmanager
from datetime import datetime, timezone
from pathlib import Path
from typing import Generator

from examples.batch_pass.remote import Reply

_APPLICATION_ID = 0x6BA7C4
_TABLE = """CREATE TABLE IF NOT EXISTS paid (
    day TEXT NOT NULL, request TEXT NOT NULL, decision TEXT NOT NULL,
    input_tokens INTEGER NOT NULL, cost_usd REAL NOT NULL)"""
_INDEX = "CREATE INDEX IF NOT EXISTS paid_request ON paid (request)"


class LedgerError(Exception):
    """The ledger cannot be read or written; the text names the file and the reason."""


def utc_today() -> str:
    """Return today's UTC date, as ``YYYY-MM-DD``."""
    return datetime.now(timezone.utc).date().isoformat()


def default_ledger() -> Path:
    """Return the ledger in the user's cache directory. Raises ``LedgerError`` if it cannot be."""
    cache = Path(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"))
    path = cache / "batch_pass" / "ledger.sqlite3"
    try:
        path.parent.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise LedgerError(f"no place for the ledger: {error} (choose one with --ledger)") from error
    return path


class Ledger:
    """A file of paid replies, each dated when it is recorded. Any thread may use it.

    Every record is a transaction of its own: what was recorded stays, however the process ends.
    All operations raise ``LedgerError``.
    """

    def __init__(self, path: Path) -> None:
        """Open ``path``, or make it. A file that is not a ledger is left as it is."""
        self.path = path
        self._lock = threading.Lock()
        with self._reported("open"):
            self._database = sqlite3.connect(path, isolation_level=None, check_same_thread=False)
            (owner,) = self._database.execute("PRAGMA application_id").fetchone()
            (tables,) = self._database.execute("SELECT count(*) FROM sqlite_master").fetchone()
            if tables and owner != _APPLICATION_ID:
                raise sqlite3.DatabaseError("it is a database of something else")
            # Written each time, so that a file that cannot be written is found out before paying.
            self._database.execute(f"PRAGMA application_id = {_APPLICATION_ID}")
            self._database.execute(_TABLE)
            self._database.execute(_INDEX)

    def spent_since(self, day: str) -> float:
        """Return what the paid calls since ``day`` (``YYYY-MM-DD``) cost, in USD."""
        with self._lock, self._reported("read"):
            query = "SELECT total(cost_usd) FROM paid WHERE day >= ?"
            return float(self._database.execute(query, (day,)).fetchone()[0])

    def answer(self, request: str) -> Reply | None:
        """Return the latest reply paid for ``request``, as a cached one; ``None`` if none was."""
        with self._lock, self._reported("read"):
            query = (
                "SELECT decision, input_tokens, cost_usd FROM paid"
                " WHERE request = ? AND decision <> '' ORDER BY rowid DESC LIMIT 1"
            )
            row = self._database.execute(query, (request,)).fetchone()
        if row is None:
            return None
        decision, input_tokens, cost = row
        return Reply(decision, input_tokens, cost, cached=True)

    def record(self, request: str, reply: Reply) -> None:
        """Record that ``reply`` was paid for ``request`` today."""
        row = (utc_today(), request, reply.decision, reply.input_tokens, reply.cost)
        with self._lock, self._reported("write"):
            self._database.execute("INSERT INTO paid VALUES (?, ?, ?, ?, ?)", row)

    def close(self) -> None:
        """Close the file."""
        with self._lock:
            self._database.close()

    @contextmanager
    def _reported(self, doing: str) -> Generator[None, None, None]:
        """Raise a failure of the database as a ``LedgerError`` that says what it was ``doing``."""
        try:
            yield
        except sqlite3.Error as error:
            raise LedgerError(f"cannot {doing} the ledger {self.path}: {error}") from error
