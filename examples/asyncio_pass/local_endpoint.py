"""The endpoint of ``examples.batch_pass``, in a process of its own: its threads are not the loop's."""

from __future__ import annotations

import signal
from collections.abc import Generator
from contextlib import contextmanager, suppress
from multiprocessing import get_context
from multiprocessing.connection import Connection


@contextmanager
def local_endpoint() -> Generator[str, None, None]:
    """Serve it while the block lasts, and give its URL."""
    processes = get_context("spawn")
    ours, its = processes.Pipe()
    process = processes.Process(target=_serve, args=(its,), daemon=True)
    process.start()
    its.close()
    try:
        yield ours.recv()
    finally:
        ours.close()
        process.join()


def _serve(pipe: Connection) -> None:
    from ..batch_pass.endpoint import Endpoint

    signal.signal(signal.SIGINT, signal.SIG_IGN)
    # The other end is closed when the block is left, and also when its process dies.
    with Endpoint() as endpoint, suppress(EOFError):
        pipe.send(endpoint.url)
        pipe.recv()
