"""A metered decision endpoint on the loopback interface: the example pays play money only.

``python -m examples.batch_pass.endpoint [PORT]`` serves it until Ctrl-C, for ``--endpoint``.
"""

from __future__ import annotations

import json
import random
import socketserver
import sys
import threading
import time
from collections import Counter
from contextlib import suppress
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler
from typing import Any

INPUT_TOKEN_USD = 3e-6
OUTPUT_TOKEN_USD = 15e-6
PROMPT_TOKENS = 24  # input tokens that the endpoint adds to every request
MAX_OUTPUT_TOKENS = 320
STALL_S = 1.5  # longer than a client waits for a reply

_BYTES_PER_TOKEN = 4
_OUTPUT_TOKENS = {"moderate": 12, "refund": 60, "route": 12, "summarise": 200, "triage": 40}
_OTHER_OUTPUT_TOKENS = 50
_DECISIONS = ("accept", "decline", "escalate")


class Endpoint(socketserver.ThreadingTCPServer):
    """Answers ``POST /decide`` from a thread of its own while its ``with`` block lasts."""

    allow_reuse_address = True
    daemon_threads = True
    request_queue_size = 128  # The usual 5 makes a burst of connections wait for seconds.

    def __init__(self, seed: int = 7, port: int = 0) -> None:
        """Listen on ``port``, or on any free one if it is 0. Raises ``OSError`` if it is taken."""
        super().__init__(("127.0.0.1", port), _Handler)
        self._seed = seed
        self._lock = threading.Lock()
        self._attempts: Counter[str] = Counter()

    @property
    def url(self) -> str:
        """Return where clients reach it."""
        return f"http://127.0.0.1:{self.server_address[1]}"

    def attempt(self, kind: str, text: str) -> tuple[float, dict[str, Any] | None]:
        """Return the seconds until the next attempt at ``text`` is answered, and any billed answer.

        The seed, the text and how often it was asked decide; from the third time on all goes well.
        A stalled attempt is billed like an answered one, although its client has given up by then.
        """
        with self._lock:
            self._attempts[text] += 1
            attempt = self._attempts[text]
        chance = random.Random(f"{self._seed} {attempt} {text}")
        delay_s = chance.uniform(0.03, 0.11)
        fate = chance.random() if attempt <= 2 else 1.0
        if fate < 0.08:
            return delay_s, None
        input_tokens = PROMPT_TOKENS + -(-len(text.encode()) // _BYTES_PER_TOKEN)
        typical = _OUTPUT_TOKENS.get(kind, _OTHER_OUTPUT_TOKENS)
        output_tokens = min(MAX_OUTPUT_TOKENS, round(typical * chance.uniform(0.6, 1.6)))
        answer = {
            "decision": chance.choice(_DECISIONS),
            "input_tokens": input_tokens,
            "cost_usd": input_tokens * INPUT_TOKEN_USD + output_tokens * OUTPUT_TOKEN_USD,
        }
        return STALL_S if fate < 0.10 else delay_s, answer

    def handle_error(self, request: Any, client_address: Any) -> None:
        """Report what went wrong in a handler, unless it is only that the client hung up."""
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)

    def __enter__(self) -> Endpoint:
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self.shutdown()
        self.server_close()


class _Handler(BaseHTTPRequestHandler):
    """Reads one request, takes its time and answers."""

    server: Endpoint

    def do_POST(self) -> None:
        try:
            question = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
            kind, text = str(question["kind"]), str(question["text"])
        except (KeyError, TypeError, ValueError):
            self.send_error(HTTPStatus.BAD_REQUEST)
            return
        delay_s, answer = self.server.attempt(kind, text)
        time.sleep(delay_s)
        body = json.dumps(answer).encode()
        self.send_response(HTTPStatus.SERVICE_UNAVAILABLE if answer is None else HTTPStatus.OK)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format: str, *args: Any) -> None:
        """Keep the terminal for the client."""


if __name__ == "__main__":
    with suppress(KeyboardInterrupt):
        served = Endpoint(port=int(sys.argv[1]) if len(sys.argv) > 1 else 0)
        print(f"serving decisions at {served.url}", flush=True)
        served.serve_forever()
