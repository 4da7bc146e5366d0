"""A lock for each key, which is forgotten as soon as nobody holds it."""

from __future__ import annotations

import threading
from contextlib import contextmanager
from typing import Generator


class KeyedLock:
    """Lets one thread at a time go on with each key."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._held: set[str] = set()

    @contextmanager
    def hold(self, key: str) -> Generator[None, None, None]:
        """Hold ``key`` for the length of the ``with`` block, waiting while another thread does."""
        with self._changed:
            self._changed.wait_for(lambda: key not in self._held)
            self._held.add(key)
        try:
            yield
        finally:
            with self._changed:
                self._held.remove(key)
                self._changed.notify_all()
