"""The store in a PostgreSQL database: processes on several machines."""

# The driver is not where the checker of types runs.
# mypy: disable-error-code="import"

from __future__ import annotations

import os
import socket
from contextlib import suppress
from threading import Timer
from typing import Any

import psycopg

from .store import Store

_LOCK = 0x6C656173  # the advisory lock that is this program's own in the database


class PostgresStore(Store):
    """A database of PostgreSQL 15 or later. Its clock is the server's."""

    _BEGIN = (f"BEGIN; SELECT pg_advisory_xact_lock({_LOCK})",)
    _NOW = "CAST(extract(epoch FROM clock_timestamp()) AS double precision)"
    _ERRORS = psycopg.Error

    def __init__(self, conninfo: str, *, timeout_s: float = 5.0) -> None:
        """``timeout_s`` is how long a statement may take, also where the network drops it."""
        super().__init__()
        self._conninfo, self._timeout_s = conninfo, timeout_s

    def _connect(self) -> psycopg.Connection[Any]:
        # The server undoes the transaction of a client that it does not hear of any more, which
        # would keep all others out.
        limit_ms = round(self._timeout_s * 1000)
        return psycopg.connect(
            self._conninfo,
            autocommit=True,
            connect_timeout=max(2, round(self._timeout_s)),
            options=f"-c statement_timeout={limit_ms}"
            f" -c idle_in_transaction_session_timeout={limit_ms}",
        )

    def _execute(self, statement: str, values: tuple[Any, ...] = ()) -> Any:
        # The driver waits for an answer without end, and a network that drops everything sends no
        # error: shutting the socket down ends the wait with one.
        with socket.socket(fileno=os.dup(self._connection.fileno())) as connected:
            watch = Timer(self._timeout_s, _shut_down, (connected,))
            watch.start()
            try:
                return super()._execute(statement.replace("?", "%s"), values)
            finally:
                watch.cancel()
                watch.join()


def _shut_down(connected: socket.socket) -> None:
    with suppress(OSError):
        connected.shutdown(socket.SHUT_RDWR)
