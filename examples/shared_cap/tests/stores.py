"""The stores of the tests, of which each runs the same faults."""

from __future__ import annotations

import os
import pwd
import shutil
import sqlite3
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from ..postgres_store import PostgresStore
from ..sqlite_store import SqliteStore
from ..store import Store

# The clock of the store is a real one that each test has set.
_SHIFT = " + (SELECT offset_s FROM shift)"
_DEBIAN = Path("/usr/lib/postgresql")  # where the programs are, by version
TIMEOUT_S = 1.0
# Of memory where there is such a folder: a slow disk is none of the faults that are tried.
FOLDER = "/dev/shm" if os.path.isdir("/dev/shm") else None


@dataclass(frozen=True)
class Reply:
    """What a call cost."""

    cost: float
    cached: bool = False
    input_tokens: int = 0


class _SetSqlite(SqliteStore):
    _NOW = SqliteStore._NOW + _SHIFT


class _SetPostgres(PostgresStore):
    _NOW = PostgresStore._NOW + _SHIFT


def opened(where: str) -> Store:
    """The store at ``where``: a path, or what PostgreSQL is connected with."""
    if "=" in where:
        return _SetPostgres(where, timeout_s=TIMEOUT_S)
    return _SetSqlite(Path(where), timeout_s=TIMEOUT_S)


class SqliteFile:
    """A file; it is stopped by a program that keeps it to itself."""

    def __init__(self, folder: Path) -> None:
        self.where = str(folder / "store.sqlite3")
        self._kept: sqlite3.Connection | None = None

    def run(self, statement: str) -> None:
        connection = SqliteStore(Path(self.where))._connect()
        connection.execute(statement)
        connection.close()

    def stop(self) -> None:
        self._kept = sqlite3.connect(self.where, isolation_level=None, timeout=10.0)
        self._kept.execute("BEGIN EXCLUSIVE")

    def start(self) -> None:
        assert self._kept
        self._kept.close()

    def close(self) -> None:
        """Nothing runs."""


class PostgresServer:
    """A server of its own, as an unprivileged user, on a socket in a temporary folder."""

    def __init__(self) -> None:
        self._folder = Path(tempfile.mkdtemp(prefix="shared_cap.", dir=FOLDER))
        self.socket = self._folder / ".s.PGSQL.5432"
        self._user = pwd.getpwnam("nobody") if os.geteuid() == 0 else None
        if self._user:
            os.chown(self._folder, self._user.pw_uid, self._user.pw_gid)
        self._run("initdb", "--auth=trust", "--no-sync", "--username=caller")
        self.start()
        self.where = f"host={self._folder} user=caller dbname=postgres"

    def run(self, statement: str) -> None:
        connection = PostgresStore(self.where)._connect()
        connection.execute(statement.encode())
        connection.close()

    def stop(self) -> None:
        self._run("pg_ctl", "stop", "--mode=immediate", "--wait")
        self._runs = False

    def start(self) -> None:
        settings = f"-k {self._folder} -c listen_addresses= -c fsync=off"
        log = str(self._folder / "log")
        self._run("pg_ctl", "start", "--wait", "--silent", f"--log={log}", f"--options={settings}")
        self._runs = True

    def close(self) -> None:
        if self._runs:
            self.stop()
        shutil.rmtree(self._folder)

    def _run(self, program: str, *options: str) -> None:
        versions = sorted(_DEBIAN.glob(f"*/bin/{program}"))
        command = [str(versions[-1]) if versions else program, *options]
        user = self._user
        subprocess.run(
            [*command, f"--pgdata={self._folder / 'data'}"],
            check=True,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            user=user and user.pw_uid,
            group=user and user.pw_gid,
            extra_groups=[] if user else None,
            cwd=self._folder,
        )
