"""A metered endpoint on the loopback interface, with play money: it answers in the forms of the
libraries, keeps a ledger of its own, bills answers that nobody reads, and fails a share of the
attempts.
"""

from __future__ import annotations

import json
import random
import sys
import threading
import time
from collections.abc import Callable
from enum import Enum
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any

from examples.clients.formats import Answer, Completions, Messages

NEW_USD, CACHE_READ_USD, CACHE_WRITE_USD, OUTPUT_USD = 3e-6, 0.3e-6, 3.75e-6, 15e-6
SLOW_S = 0.2
KEPT_BACK_S = 5.0

_EXTRA_TOKENS = 20  # What the endpoint adds to a question.
_BYTES_PER_TOKEN = 4


class Fate(Enum):
    """What becomes of an attempt. All but the two that are refused are billed."""

    ANSWERED = "answered"
    SLOW = "answered, after a while"
    REFUSED = "429"
    FAILED = "500"
    KEPT_BACK = "billed, and never answered"
    CUT = "billed, and the connection is lost in the middle of the answer"
    ENDED = "billed, and the answer ends in good form, but too early"
    UNTOLD = "billed, and answered without a usage; a stream ends before it"


class Endpoint(ThreadingHTTPServer):
    """Serves from threads of its own while its ``with`` block lasts."""

    daemon_threads = True
    request_queue_size = 128  # The usual 5 makes a burst of connections wait for seconds.

    def __init__(self, fate: Callable[[str], Fate]) -> None:
        """Listen on any free port. ``fate`` says what becomes of an attempt at a question."""
        super().__init__(("127.0.0.1", 0), _Handler)
        self.fate = fate
        self.bills: list[tuple[str, float]] = []  # The question of each billed attempt, and USD.
        self.closing = threading.Event()

    @property
    def url(self) -> str:
        """Return where clients reach it."""
        return f"http://127.0.0.1:{self.server_address[1]}"

    def billed_usd(self, question: str) -> float:
        """Return what all the attempts at ``question`` were billed."""
        return sum(usd for asked, usd in list(self.bills) if asked == question)

    def handle_error(self, request: Any, client_address: Any) -> None:
        """Report what went wrong in a handler, unless it is only that the client hung up."""
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)

    def __enter__(self) -> Endpoint:
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self.closing.set()
        self.shutdown()
        self.server_close()


def _answer(form: Completions, question: str, max_output_tokens: int) -> Answer:
    """Make up an answer, always the same one to a question."""
    chance = random.Random(f"answer {question}")
    input_tokens = _EXTRA_TOKENS + -(-len(question.encode()) // _BYTES_PER_TOKEN)
    cache_read = chance.choice((0, input_tokens // 2))
    cache_write = chance.choice((0, input_tokens // 4)) if form.writes_cache else 0
    return Answer(
        pieces=("Sent ", "to ", "the ", "desk."),
        new_tokens=input_tokens - cache_read - cache_write,
        cache_read_tokens=cache_read,
        cache_write_tokens=cache_write,
        output_tokens=chance.randint(4, max_output_tokens),
        running_usage=chance.random() < 0.5,
    )


def _usd(answer: Answer) -> float:
    """Return what the answer is billed."""
    input_usd = answer.new_tokens * NEW_USD + answer.cache_read_tokens * CACHE_READ_USD
    cache_write_usd = answer.cache_write_tokens * CACHE_WRITE_USD
    return input_usd + cache_write_usd + answer.output_tokens * OUTPUT_USD


class _Handler(BaseHTTPRequestHandler):
    """Reads requests, takes its time and answers."""

    server: Endpoint
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    wbufsize = -1

    def do_POST(self) -> None:
        length = int(self.headers["Content-Length"])
        body = self.rfile.read(length)
        if len(body) < length:  # The client gave up while it asked.
            return
        request = json.loads(body)
        form = Messages() if self.path.endswith("/messages") else Completions()
        question = form.question(request)
        fate = self.server.fate(question)
        if fate in (Fate.REFUSED, Fate.FAILED):
            self._send_refusal(int(fate.value))
            return
        answer = _answer(form, question, form.max_output_tokens(request))
        self.server.bills.append((question, _usd(answer)))
        if fate is Fate.KEPT_BACK:
            self.server.closing.wait(KEPT_BACK_S)
            self.close_connection = True
            return
        if fate is Fate.SLOW:
            time.sleep(SLOW_S)
        if request.get("stream"):
            self._send_stream(list(form.events(request["model"], answer)), fate)
        else:
            self._send_body(form.body(request["model"], answer, fate is not Fate.UNTOLD), fate)

    def _send_refusal(self, status: int) -> None:
        body = b'{"error": {"type": "error", "message": "not now"}}'
        self._send_head(status, "application/json", "Content-Length", str(len(body)))
        self.wfile.write(body)

    def _send_body(self, body: bytes, fate: Fate) -> None:
        sent = body[: len(body) // 2] if fate in (Fate.CUT, Fate.ENDED) else body
        length = len(sent) if fate is Fate.ENDED else len(body)
        self._send_head(200, "application/json", "Content-Length", str(length))
        self.wfile.write(sent)
        self.close_connection = self.close_connection or fate is Fate.CUT

    def _send_stream(self, events: list[bytes], fate: Fate) -> None:
        self._send_head(200, "text/event-stream", "Transfer-Encoding", "chunked")
        if fate is Fate.UNTOLD:
            events = events[:-2]
        elif fate in (Fate.CUT, Fate.ENDED):
            events = events[: len(events) // 2]
        for event in events:
            self.wfile.write(b"%x\r\n%s\r\n" % (len(event), event))
            self.wfile.flush()
        if fate is Fate.CUT:
            self.close_connection = True
        else:
            self.wfile.write(b"0\r\n\r\n")

    def _send_head(self, status: int, kind: str, length: str, value: str) -> None:
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header(length, value)
        self.end_headers()

    def log_message(self, format: str, *args: Any) -> None:
        """Keep the terminal for the client."""
