"""Paid calls with the vendor's library ``anthropic``: on threads and in tasks, whole and streamed.

The prices and the model are made up: fill in those of your endpoint.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import anthropic
import httpx2
from anthropic.types import Message, RawMessageStreamEvent, Usage

from examples.clients.bounded import Call, PaidCalls, Prices, Reply

MODEL = "some-model"
MAX_OUTPUT_TOKENS = 300
PRICES = Prices(input_usd=3e-6, cache_read_usd=0.3e-6, cache_write_usd=3.75e-6, output_usd=15e-6)

# The library would retry by itself: one call would be up to three attempts, each billed.
OPTIONS: dict[str, Any] = {"max_retries": 0, "timeout": httpx2.Timeout(20.0, connect=5.0)}

# Nothing is billed if one of these ends the request: the endpoint refused it, or it never left.
# Anything else may be billed: a time-out, an internal error, and a cut body, a bare ValueError.
REFUSED = (anthropic.BadRequestError, anthropic.RateLimitError, anthropic.UnprocessableEntityError)
FORBIDDEN = (
    anthropic.AuthenticationError,
    anthropic.NotFoundError,
    anthropic.PermissionDeniedError,
)
UNSENT = (httpx2.ConnectError, httpx2.ConnectTimeout, httpx2.PoolTimeout)
FREE = REFUSED + FORBIDDEN + UNSENT


def ask(client: anthropic.Anthropic, calls: PaidCalls, question: str) -> str:
    """Return the answer to ``question``. The ``client`` was made with ``OPTIONS``."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            answer = client.messages.create(**_request(question))
        return _read(call, answer)


async def ask_async(client: anthropic.AsyncAnthropic, calls: PaidCalls, question: str) -> str:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            answer = await client.messages.create(**_request(question))
        return _read(call, answer)


def stream(
    client: anthropic.Anthropic, calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Hand the answer to ``show`` piece by piece. A cut stream raises, once it is charged."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            events = client.messages.create(**_request(question), stream=True)
        follow = _Stream(call)
        with events:
            for event in events:
                show(follow.piece(event))


async def stream_async(
    client: anthropic.AsyncAnthropic, calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            events = await client.messages.create(**_request(question), stream=True)
        follow = _Stream(call)
        async with events:
            async for event in events:
                show(follow.piece(event))


class _Stream:
    """Follows the events of an answer: the first shows the input, and the last but one the rest."""

    def __init__(self, call: Call) -> None:
        self._call = call
        self._usage = Usage(input_tokens=0, output_tokens=0)

    def piece(self, event: RawMessageStreamEvent) -> str:
        """Return the text of ``event``, which most events have not."""
        if event.type == "content_block_delta" and event.delta.type == "text_delta":
            return event.delta.text
        if event.type == "message_stop":
            self._call.read(_reply(self._usage))
        elif event.type == "message_start":
            self._usage = event.message.usage
            self._call.show(_reply(self._usage))
        elif event.type == "message_delta":
            # The counts are those of the whole answer so far.
            self._usage = self._usage.model_copy(update=event.usage.model_dump(exclude_none=True))
            self._call.show(_reply(self._usage))
        return ""


def _request(question: str) -> dict[str, Any]:
    messages = [{"role": "user", "content": question}]
    return {"model": MODEL, "messages": messages, "max_tokens": MAX_OUTPUT_TOKENS}


def _read(call: Call, answer: Message) -> str:
    call.read(_reply(answer.usage))
    return "".join(block.text for block in answer.content if block.type == "text")


def _reply(usage: Usage) -> Reply:
    # The input tokens are those that the prompt cache neither held nor took.
    return PRICES.reply(
        usage.input_tokens,
        usage.output_tokens,
        cache_read=usage.cache_read_input_tokens or 0,
        cache_write=usage.cache_creation_input_tokens or 0,
    )
