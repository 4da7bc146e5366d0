"""Paid calls with the vendor's library ``openai``: on threads and in tasks, whole and streamed.

The prices and the model are made up: fill in those of your endpoint.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import httpx
import openai
from openai.types import CompletionUsage
from openai.types.chat import ChatCompletion, ChatCompletionChunk

from examples.clients.bounded import AnswerCut, Call, PaidCalls, Prices, Reply

MODEL = "some-model"
MAX_OUTPUT_TOKENS = 300
PRICES = Prices(input_usd=3e-6, cache_read_usd=0.3e-6, cache_write_usd=3.75e-6, output_usd=15e-6)

# The library would retry by itself: one call would be up to three attempts, each billed.
OPTIONS: dict[str, Any] = {"max_retries": 0, "timeout": httpx.Timeout(20.0, connect=5.0)}

# Nothing is billed if one of these ends the request: the endpoint refused it, or it never left.
# Anything else may be billed: a time-out, an internal error, and a cut body, a bare ValueError.
REFUSED = (openai.BadRequestError, openai.RateLimitError, openai.UnprocessableEntityError)
FORBIDDEN = (openai.AuthenticationError, openai.NotFoundError, openai.PermissionDeniedError)
UNSENT = (httpx.ConnectError, httpx.ConnectTimeout, httpx.PoolTimeout)
FREE = REFUSED + FORBIDDEN + UNSENT


def ask(client: openai.OpenAI, calls: PaidCalls, question: str) -> str:
    """Return the answer to ``question``. The ``client`` was made with ``OPTIONS``."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            answer = client.chat.completions.create(**_request(question))
        return _read(call, answer)


async def ask_async(client: openai.AsyncOpenAI, calls: PaidCalls, question: str) -> str:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            answer = await client.chat.completions.create(**_request(question))
        return _read(call, answer)


def stream(
    client: openai.OpenAI, calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Hand the answer to ``show`` piece by piece. A cut stream raises, once it is charged."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            chunks = client.chat.completions.create(**_streamed(question))
        with chunks:
            for chunk in chunks:
                show(_piece(call, chunk))


async def stream_async(
    client: openai.AsyncOpenAI, calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            chunks = await client.chat.completions.create(**_streamed(question))
        async with chunks:
            async for chunk in chunks:
                show(_piece(call, chunk))


def _request(question: str) -> dict[str, Any]:
    messages = [{"role": "user", "content": question}]
    return {"model": MODEL, "messages": messages, "max_completion_tokens": MAX_OUTPUT_TOKENS}


def _streamed(question: str) -> dict[str, Any]:
    return _request(question) | {"stream": True, "stream_options": {"include_usage": True}}


def _read(call: Call, answer: ChatCompletion) -> str:
    if answer.usage is None:
        raise AnswerCut("the answer does not say what it used")
    call.read(_reply(answer.usage))
    return answer.choices[0].message.content or ""


def _piece(call: Call, chunk: ChatCompletionChunk) -> str:
    """Return the text of ``chunk``; the last one has none, but says what the call used."""
    ended = not chunk.choices or chunk.choices[0].finish_reason is not None
    if ended and chunk.usage is not None:  # Some endpoints name the usage so far in each chunk.
        call.read(_reply(chunk.usage))
    text = (chunk.choices[0].delta.content or "") if chunk.choices else ""
    if text:  # It is one token at least.
        call.show(Reply(0, call.shown.cost + PRICES.output_usd))
    return text


def _reply(usage: CompletionUsage) -> Reply:
    details = usage.prompt_tokens_details
    cached = (details.cached_tokens or 0) if details is not None else 0
    return PRICES.reply(usage.prompt_tokens - cached, usage.completion_tokens, cache_read=cached)
