"""One attempt at the endpoint over HTTP: what it answered, or how it failed."""

from __future__ import annotations

import asyncio
import math
from dataclasses import dataclass
from types import TracebackType
from typing import Any

import aiohttp

_TIMEOUT_S = 1.0
_REFUSED = 429  # The endpoint is known not to bill what it answers with this status.


@dataclass(frozen=True)
class Reply:
    """A decision, its input tokens and what it cost in USD."""

    decision: str
    input_tokens: int
    cost: float
    cached: bool = False


class NotBilled(Exception):
    """The endpoint was not reached, or refused the attempt, which then costs nothing."""


class NotRead(Exception):
    """The attempt was sent and may be billed, but no reply to it was read."""


class Remote:
    """The endpoint at ``url``, for any number of attempts at once inside its ``async with`` block.

    How many there are is left to the bounds, and no attempt is repeated here: each is bounded.
    """

    def __init__(self, url: str) -> None:
        self._url = url.rstrip("/") + "/decide"

    async def __aenter__(self) -> Remote:
        self._session = aiohttp.ClientSession(
            connector=aiohttp.TCPConnector(limit=0),
            timeout=aiohttp.ClientTimeout(total=_TIMEOUT_S),
        )
        return self

    async def __aexit__(
        self,
        _type: type[BaseException] | None,
        _error: BaseException | None,
        _traceback: TracebackType | None,
    ) -> None:
        await self._session.close()

    async def ask(self, kind: str, text: str) -> Reply:
        """Ask once. Raises ``NotBilled`` or ``NotRead``, each with a text that says why."""
        question = {"kind": kind, "text": text}
        try:
            async with self._session.post(self._url, json=question) as response:
                if response.status == _REFUSED:
                    raise NotBilled(f"{self._url} answered {response.status} {response.reason}")
                response.raise_for_status()
                return _reply(await response.json(content_type=None))
        except aiohttp.ClientConnectorError as error:
            raise NotBilled(str(error)) from error
        except (aiohttp.ClientError, asyncio.TimeoutError, ValueError) as error:
            raise NotRead(f"no reply from {self._url}: {error!r}") from error


def _reply(answer: Any) -> Reply:
    """Return the reply that ``answer`` holds. Raises ``ValueError`` where it makes no sense."""
    try:
        reply = Reply(
            str(answer["decision"]), int(answer["input_tokens"]), float(answer["cost_usd"])
        )
    except (LookupError, TypeError) as error:
        raise ValueError("not a decision with its price") from error
    if reply.input_tokens < 0 or not 0.0 <= reply.cost < math.inf:
        raise ValueError("an impossible price")
    return reply
