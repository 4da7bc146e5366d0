"""The store in an SQLite file: several processes on one machine, and no server."""

from __future__ import annotations

import sqlite3
from pathlib import Path

from .store import Store


class SqliteStore(Store):
    """A file on a local disk, made when it is first used. Its clock is the machine's."""

    _BEGIN = ("BEGIN IMMEDIATE",)
    _NOW = "(julianday('now') - 2440587.5) * 86400.0"
    _ERRORS = sqlite3.Error

    def __init__(self, path: Path, *, timeout_s: float = 5.0) -> None:
        """``timeout_s`` is how long a transaction waits for the others' to end."""
        super().__init__()
        self._path, self._timeout_s = path, timeout_s

    def _connect(self) -> sqlite3.Connection:
        return sqlite3.connect(self._path, timeout=self._timeout_s, isolation_level=None)
