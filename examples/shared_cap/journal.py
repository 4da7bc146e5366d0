"""What a lease's calls may have spent, kept where the end of their process leaves it.

A journal is a small file that its process has mapped and locked: a store to it costs what a store
to memory costs, and the system keeps it however the process ends. The folder must be local and be
emptied when the machine starts (``/dev/shm``, ``/run``), so that no journal is older than what its
process knew last.
"""

from __future__ import annotations

import fcntl
import mmap
import os
import struct
from pathlib import Path

_USD = struct.Struct("d")


class Journal:
    """The journal of one lease, open and locked."""

    def __init__(self, path: Path, flags: int) -> None:
        self._path = path
        self._file = os.open(path, os.O_RDWR | os.O_CLOEXEC | flags, 0o600)
        try:
            fcntl.flock(self._file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            if flags & os.O_CREAT:
                os.ftruncate(self._file, _USD.size)
            self._mapped = mmap.mmap(self._file, _USD.size)
        except BaseException:
            os.close(self._file)
            raise

    @classmethod
    def made(cls, folder: Path, lease: str) -> Journal:
        """A new journal that says $0. Raises ``OSError`` where it cannot be made."""
        folder.mkdir(parents=True, exist_ok=True)
        return cls(folder / lease, os.O_CREAT | os.O_EXCL)

    @classmethod
    def abandoned(cls, folder: Path, lease: str) -> Journal | None:
        """The journal of a lease whose process has ended.

        None where the process lives, ran on another machine, or ran before this one started.
        """
        try:
            return cls(folder / lease, 0)
        except OSError:  # There is none, it is locked, or it belongs to another user.
            return None

    @property
    def spent_usd(self) -> float:
        """The most that the calls may have spent."""
        (usd,) = _USD.unpack_from(self._mapped)
        return float(usd)

    @spent_usd.setter
    def spent_usd(self, usd: float) -> None:
        _USD.pack_into(self._mapped, 0, usd)

    def close(self) -> None:
        """Unlock it: from now on it is abandoned."""
        fcntl.flock(self._file, fcntl.LOCK_UN)  # The mapping keeps the file open.
        os.close(self._file)

    def remove(self) -> None:
        """Close it for good: the store knows what was spent."""
        self._path.unlink(missing_ok=True)
        self.close()
