"""One attempt at the endpoint over HTTP: what it answered, or how it failed."""

from __future__ import annotations

import json
import math
import re
from dataclasses import dataclass
from http import HTTPStatus
from http.client import HTTPConnection, HTTPException
from urllib.parse import urlsplit

from examples.batch_pass.endpoint import MAX_OUTPUT_TOKENS

# The answers with which the endpoint is known to bill nothing. A 500 may come after billing.
_REFUSALS = (HTTPStatus.BAD_REQUEST, HTTPStatus.NOT_FOUND, HTTPStatus.TOO_MANY_REQUESTS)


@dataclass(frozen=True)
class Reply:
    """A decision and what it took: ``cost`` is in USD; a ``cached`` one took nothing this time.

    An attempt that was sent and never read has a cost, but an empty decision.
    """

    decision: str
    input_tokens: int
    cost: float
    cached: bool = False


@dataclass(frozen=True)
class Bill:
    """What the endpoint says that it has billed so far, to all its clients."""

    calls: int
    cost_usd: float


class NotBilled(Exception):
    """The attempt is known to cost nothing: there was no connection, or a refusal came."""


class NotRead(Exception):
    """The attempt was sent but no reply to it was read: it may be billed all the same."""


class Remote:
    """The endpoint as the client sees it. Every attempt has a connection of its own."""

    def __init__(self, url: str) -> None:
        """Take a ``http://HOST[:PORT][/PATH]``. Raises ``ValueError`` for anything else."""
        address = urlsplit(url)
        if not re.fullmatch("http://[!-~]+", url) or not address.hostname:
            raise ValueError(f"not an http:// address: {url!r}")
        self.url = url
        self._host, self._port = address.hostname, address.port or 80
        self._path = address.path.rstrip("/")

    def ask(self, kind: str, text: str, timeout_s: float) -> Reply:
        """Ask once, waiting at most ``timeout_s`` seconds for each step of the exchange.

        Raises ``NotBilled`` or ``NotRead``, each with a text that says why.
        """
        question = {"kind": kind, "text": text, "max_output_tokens": MAX_OUTPUT_TOKENS}
        connection = HTTPConnection(self._host, self._port, timeout=timeout_s)
        try:
            connection.connect()
        except (OSError, UnicodeError) as error:
            raise NotBilled(f"no connection to {self.url}: {error}") from error
        try:
            connection.request("POST", self._path + "/decide", json.dumps(question))
            response = connection.getresponse()
            if response.status in _REFUSALS:
                raise NotBilled(f"{self.url} answered {response.status} {response.reason}")
            if response.status != HTTPStatus.OK:
                raise NotRead(f"{self.url} answered {response.status} {response.reason}")
            return _reply(response.read())
        except (OSError, HTTPException) as error:
            raise NotRead(f"no reply from {self.url}: {error}") from error
        finally:
            connection.close()

    def bill(self, timeout_s: float) -> Bill | None:
        """Return the endpoint's bill so far, or ``None`` if it does not tell."""
        connection = HTTPConnection(self._host, self._port, timeout=timeout_s)
        try:
            connection.request("GET", self._path + "/bill")
            answer = json.loads(connection.getresponse().read())
            return Bill(int(answer["calls"]), float(answer["cost_usd"]))
        except (OSError, HTTPException, KeyError, TypeError, ValueError):
            return None
        finally:
            connection.close()


def _reply(body: bytes) -> Reply:
    """Return the reply that ``body`` holds. Raises ``NotRead`` if it makes no sense."""
    try:
        answer = json.loads(body)
        reply = Reply(
            decision=str(answer["decision"]),
            input_tokens=int(answer["input_tokens"]),
            cost=float(answer["cost_usd"]),
        )
    except (ArithmeticError, KeyError, TypeError, ValueError, RecursionError) as error:
        raise NotRead("the reply is not a decision with its price") from error
    if not reply.decision or not reply.decision.isprintable():
        raise NotRead("the reply has no decision that can be kept")
    if not 0 <= reply.input_tokens < 2**53 or not 0.0 <= reply.cost < math.inf:
        raise NotRead("the reply names an impossible price")
    return reply
