"""What shows while the pass runs: the progress line, and the warnings beside it."""

from __future__ import annotations

import logging
import shutil
import sys
import threading
from typing import TextIO


class Progress(logging.Handler):
    """One line that is rewritten in place on a terminal, and nothing elsewhere.

    As a logging handler it prints each message on a line of its own, above the progress line.
    """

    def __init__(self, stream: TextIO = sys.stderr) -> None:
        super().__init__()
        self._stream = stream
        self._in_place = stream.isatty()
        self._shown = ""
        self._writing = threading.RLock()

    def show(self, line: str) -> None:
        """Replace the progress line; an empty one removes it."""
        if not self._in_place:
            return
        width = shutil.get_terminal_size().columns - 1
        with self._writing:
            blank = " " * min(len(self._shown), width)
            self._write(f"\r{blank}\r{line[:width]}")
            self._shown = line

    def emit(self, record: logging.LogRecord) -> None:
        """Print the message. The progress line shows again when it is next replaced."""
        with self._writing:
            self.show("")
            self._write(f"batch_pass: {record.getMessage()}\n")

    def _write(self, text: str) -> None:
        self._stream.write(text)
        self._stream.flush()
