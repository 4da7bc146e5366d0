"""A network between a process and its server that can drop everything, in silence."""

from __future__ import annotations

import socket
import tempfile
import threading
from contextlib import suppress
from pathlib import Path


class Network:
    """Passes on what is sent to a socket in ``folder``, until it is cut."""

    def __init__(self, server: Path) -> None:
        self._server = server
        self._folder = tempfile.TemporaryDirectory(prefix="network.")
        self.folder = Path(self._folder.name)
        self._open = threading.Event()
        self._open.set()
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(self.folder / server.name))
        self._listener.listen()
        self._sockets = [self._listener]
        threading.Thread(target=self._accept, daemon=True).start()

    def cut(self) -> None:
        """Drop what is sent from now on, both ways, also on new connections."""
        self._open.clear()

    def mend(self) -> None:
        """Pass on what is sent from now on; what was dropped stays so."""
        self._open.set()

    def close(self) -> None:
        """End every connection."""
        for each in self._sockets:
            with suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()
        self._folder.cleanup()

    def _accept(self) -> None:
        with suppress(OSError):
            while True:
                client, _ = self._listener.accept()
                server = socket.socket(socket.AF_UNIX)
                self._sockets += [client, server]
                server.connect(str(self._server))
                for ends in ((client, server), (server, client)):
                    threading.Thread(target=self._pass_on, args=ends, daemon=True).start()

    def _pass_on(self, source: socket.socket, target: socket.socket) -> None:
        with suppress(OSError):
            while data := source.recv(65_536):
                if self._open.is_set():
                    target.sendall(data)
            target.shutdown(socket.SHUT_WR)
