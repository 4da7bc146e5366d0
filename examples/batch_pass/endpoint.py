"""A metered decision endpoint on the loopback interface: the example pays play money only.

``python -m examples.batch_pass.endpoint [PORT]`` serves it until Ctrl-C, for ``--endpoint``.
"""

from __future__ import annotations

import json
import math
import random
import socketserver
import sys
import threading
import time
from collections import Counter
from contextlib import suppress
from dataclasses import dataclass
from enum import Enum
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler
from types import MappingProxyType
from typing import Any, Mapping

INPUT_TOKEN_USD = 3e-6
OUTPUT_TOKEN_USD = 15e-6
PROMPT_TOKENS = 24  # input tokens that the endpoint adds to every request
MAX_OUTPUT_TOKENS = 320  # of an answer, where the question sets no lower limit
STALL_S = 1.5  # longer than a client waits for a reply

_BYTES_PER_TOKEN = 4
_OUTPUT_TOKENS = {"moderate": 12, "refund": 60, "route": 12, "summarise": 200, "triage": 40}
_OTHER_OUTPUT_TOKENS = 50
_DECISIONS = ("accept", "decline", "escalate")


class Fault(Enum):
    """What goes wrong with an attempt. A client cannot tell a billed 500 from one that is not."""

    REFUSED = "429, which is never billed"
    FAILED = "500, before there was an answer to bill"
    FAILED_BILLED = "500, after the answer was billed"
    KEPT_BACK = "billed, but answered only after the client has given up"
    CUT = "billed, but the connection ends in the middle of the answer"


USUAL_FAULTS: Mapping[Fault, float] = MappingProxyType(
    {
        Fault.REFUSED: 0.06,
        Fault.FAILED: 0.01,
        Fault.FAILED_BILLED: 0.01,
        Fault.KEPT_BACK: 0.01,
        Fault.CUT: 0.01,
    }
)


@dataclass(frozen=True)
class Charge:
    """A line of the endpoint's bill."""

    text: str
    input_tokens: int
    cost_usd: float


@dataclass(frozen=True)
class Attempt:
    """What becomes of one attempt: how long it takes, its answer, and what goes wrong, if any."""

    delay_s: float
    answer: Mapping[str, Any]
    fault: Fault | None


class Endpoint(socketserver.ThreadingTCPServer):
    """Answers ``POST /decide`` from a thread of its own while its ``with`` block lasts.

    ``GET /bill`` says how many attempts it has billed, and at how many USD in all.
    """

    allow_reuse_address = True
    daemon_threads = True
    request_queue_size = 128  # The usual 5 makes a burst of connections wait for seconds.

    def __init__(
        self, seed: int = 7, port: int = 0, faults: Mapping[Fault, float] = USUAL_FAULTS
    ) -> None:
        """Listen on ``port``, or on any free one if it is 0. Raises ``OSError`` if it is taken.

        ``faults`` says how many of the attempts meet each of them, as a part of 1.
        """
        super().__init__(("127.0.0.1", port), _Handler)
        self._seed = seed
        self._faults = faults
        self._lock = threading.Lock()
        self._attempts: Counter[str] = Counter()
        self._bill: list[Charge] = []

    @property
    def url(self) -> str:
        """Return where clients reach it."""
        return f"http://127.0.0.1:{self.server_address[1]}"

    @property
    def bill(self) -> list[Charge]:
        """Return what was billed so far, in order."""
        with self._lock:
            return list(self._bill)

    def attempt(self, kind: str, text: str, max_output_tokens: int) -> Attempt:
        """Return what becomes of the next attempt at ``text``, which is billed at once if ever.

        The seed, the text and how often it was asked decide; from the third time on all goes well.
        """
        with self._lock:
            self._attempts[text] += 1
            attempt = self._attempts[text]
        chance = random.Random(f"{self._seed} {attempt} {text}")
        delay_s = chance.uniform(0.03, 0.11)
        fault = self._fault(chance.random()) if attempt <= 2 else None
        input_tokens = PROMPT_TOKENS + -(-len(text.encode()) // _BYTES_PER_TOKEN)
        typical = _OUTPUT_TOKENS.get(kind, _OTHER_OUTPUT_TOKENS)
        output_tokens = min(max_output_tokens, round(typical * chance.uniform(0.6, 1.6)))
        cost_usd = input_tokens * INPUT_TOKEN_USD + output_tokens * OUTPUT_TOKEN_USD
        if fault not in (Fault.REFUSED, Fault.FAILED):
            with self._lock:
                self._bill.append(Charge(text, input_tokens, cost_usd))
        answer = {
            "decision": chance.choice(_DECISIONS),
            "input_tokens": input_tokens,
            "cost_usd": cost_usd,
        }
        return Attempt(STALL_S if fault is Fault.KEPT_BACK else delay_s, answer, fault)

    def _fault(self, fate: float) -> Fault | None:
        """Return what an attempt meets whose fate is a random number from 0 to 1."""
        for fault, part in self._faults.items():
            if fate < part:
                return fault
            fate -= part
        return None

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
            limit = min(
                MAX_OUTPUT_TOKENS, int(question.get("max_output_tokens", MAX_OUTPUT_TOKENS))
            )
        except (ArithmeticError, AttributeError, KeyError, TypeError, ValueError):
            self.send_error(HTTPStatus.BAD_REQUEST)
            return
        attempt = self.server.attempt(kind, text, limit)
        time.sleep(attempt.delay_s)
        if attempt.fault is Fault.REFUSED:
            self._send(HTTPStatus.TOO_MANY_REQUESTS, {})
        elif attempt.fault in (Fault.FAILED, Fault.FAILED_BILLED):
            self._send(HTTPStatus.INTERNAL_SERVER_ERROR, {})
        else:
            self._send(HTTPStatus.OK, attempt.answer, cut=attempt.fault is Fault.CUT)

    def do_GET(self) -> None:
        if self.path != "/bill":
            self.send_error(HTTPStatus.NOT_FOUND)
            return
        billed_usd = [charge.cost_usd for charge in self.server.bill]
        self._send(HTTPStatus.OK, {"calls": len(billed_usd), "cost_usd": math.fsum(billed_usd)})

    def _send(self, status: HTTPStatus, content: Mapping[str, Any], cut: bool = False) -> None:
        """Send ``content`` as JSON; only the first half of it if ``cut``."""
        body = json.dumps(content).encode()
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body[: len(body) // 2] if cut else body)

    def log_message(self, format: str, *args: Any) -> None:
        """Keep the terminal for the client."""


if __name__ == "__main__":
    with suppress(KeyboardInterrupt):
        served = Endpoint(port=int(sys.argv[1]) if len(sys.argv) > 1 else 0)
        print(f"serving decisions at {served.url}", flush=True)
        served.serve_forever()
