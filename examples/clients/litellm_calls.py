"""Paid calls with ``litellm``, which speaks to many vendors: on threads and in tasks, and streamed.

The prices and the model are made up: fill in those of your endpoint.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import replace
from typing import Any

import litellm
from litellm.exceptions import AuthenticationError, BadRequestError, NotFoundError
from litellm.exceptions import PermissionDeniedError, RateLimitError, UnprocessableEntityError

from examples.clients.bounded import AnswerCut, Call, PaidCalls, Prices, Reply

MODEL = "openai/some-model"
MAX_OUTPUT_TOKENS = 300
PRICES = Prices(input_usd=3e-6, cache_read_usd=0.3e-6, cache_write_usd=3.75e-6, output_usd=15e-6)

# The library, and the vendor's library behind it, would retry: one call would be several attempts.
OPTIONS: dict[str, Any] = {"max_retries": 0, "num_retries": 0, "timeout": 20.0}

# Nothing is billed if one of these ends the request, as the endpoint refused it. Anything else may
# be billed: a time-out, an internal error, and a cut body, which looks like an internal error.
REFUSED = (BadRequestError, RateLimitError, UnprocessableEntityError)
FORBIDDEN = (AuthenticationError, NotFoundError, PermissionDeniedError)
FREE = REFUSED + FORBIDDEN


def ask(endpoint: dict[str, Any], calls: PaidCalls, question: str) -> str:
    """Return the answer to ``question``. ``endpoint`` has its ``api_base`` and its ``api_key``."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            answer = litellm.completion(**_request(question) | endpoint)
        return _read(call, answer)


async def ask_async(endpoint: dict[str, Any], calls: PaidCalls, question: str) -> str:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            answer = await litellm.acompletion(**_request(question) | endpoint)
        return _read(call, answer)


def stream(
    endpoint: dict[str, Any], calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Hand the answer to ``show`` piece by piece. A cut stream raises, once it is charged."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            chunks = litellm.completion(**_streamed(question) | endpoint)
        for chunk in chunks:
            show(_piece(call, chunks, chunk))


async def stream_async(
    endpoint: dict[str, Any], calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            chunks: Any = await litellm.acompletion(**_streamed(question) | endpoint)
        async for chunk in chunks:
            show(_piece(call, chunks, chunk))


def _request(question: str) -> dict[str, Any]:
    messages = [{"role": "user", "content": question}]
    return {"model": MODEL, "messages": messages, "max_tokens": MAX_OUTPUT_TOKENS, **OPTIONS}


def _streamed(question: str) -> dict[str, Any]:
    return _request(question) | {"stream": True, "stream_options": {"include_usage": True}}


def _read(call: Call, answer: Any) -> str:
    if not answer.usage.prompt_tokens:  # The library fills in zeros.
        raise AnswerCut("the answer does not say what it used")
    # An answer from the library's own cache names the tokens that it took when it was paid for.
    call.read(_reply(answer.usage, cached=bool(answer._hidden_params.get("cache_hit"))))
    return answer.choices[0].message.content or ""


def _piece(call: Call, chunks: Any, chunk: Any) -> str:
    """Return the text of ``chunk``; the last one has none, but says what the call used."""
    usage = getattr(chunk, "usage", None)
    cached = bool(chunks._hidden_params.get("cache_hit"))
    if usage is not None and (cached or _reported(chunks)):
        call.read(_reply(usage, cached))
    text = (chunk.choices[0].delta.content or "") if chunk.choices else ""
    if text and not cached:  # It is one token at least.
        call.show(Reply(0, call.shown.cost + PRICES.output_usd))
    return text


def _reported(chunks: Any) -> bool:
    """Return whether the usage is the endpoint's for the whole answer: of a stream that ends before
    it is told, the library has one of its own, which is too low.
    """
    ended = [each for each in chunks.chunks if not each.choices or each.choices[0].finish_reason]
    usages = [getattr(each, "usage", None) for each in ended]
    return chunks.received_finish_reason is not None and any(usages)


def _reply(usage: Any, cached: bool) -> Reply:
    details = usage.prompt_tokens_details
    # Tokens that the prompt cache held or took are among the others, where a vendor names them.
    cache_read = getattr(details, "cached_tokens", None) or 0
    cache_write = getattr(details, "cache_creation_tokens", None) or 0
    new = usage.prompt_tokens - cache_read - cache_write
    paid = PRICES.reply(new, usage.completion_tokens, cache_read, cache_write)
    return replace(paid, cached=cached)
