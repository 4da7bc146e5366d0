"""Paid calls with ``httpx``, a plain HTTP library: on threads and in tasks, whole and streamed.

The prices and the model are made up: fill in those of your endpoint.
"""

from __future__ import annotations

import json
from collections.abc import Callable
from contextlib import aclosing, closing
from typing import Any

import httpx

from examples.clients.bounded import Call, PaidCalls, Prices, Reply

PATH = "chat/completions"
MODEL = "some-model"
MAX_OUTPUT_TOKENS = 300
PRICES = Prices(input_usd=3e-6, cache_read_usd=0.3e-6, cache_write_usd=3.75e-6, output_usd=15e-6)

# The library does not retry. The time-out is for each read, not for the whole answer.
OPTIONS: dict[str, Any] = {"timeout": httpx.Timeout(20.0, connect=5.0)}


class Refused(Exception):
    """The endpoint refused the request, and does not bill it."""


# Nothing is billed if one of these ends the request: the endpoint refused it, or it never left.
# Anything else may be billed: a time-out, an internal error, a cut body.
FREE = (Refused, httpx.ConnectError, httpx.ConnectTimeout, httpx.PoolTimeout)
_REFUSED_STATUSES = (400, 401, 403, 404, 422, 429)


def ask(client: httpx.Client, calls: PaidCalls, question: str) -> str:
    """Return the answer to ``question``. The ``client`` was made with ``OPTIONS`` and its base."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            response = client.post(PATH, json=_request(question))
            _check(response)
        return _read(call, response)


async def ask_async(client: httpx.AsyncClient, calls: PaidCalls, question: str) -> str:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        with call.free_if(*FREE):
            response = await client.post(PATH, json=_request(question))
            _check(response)
        return _read(call, response)


def stream(
    client: httpx.Client, calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Hand the answer to ``show`` piece by piece. A cut stream raises, once it is charged."""
    with calls.hold(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        request = client.build_request("POST", PATH, json=_streamed(question))
        with call.free_if(*FREE):
            response = client.send(request, stream=True)
        with closing(response):
            with call.free_if(Refused):
                _check(response)
            for line in response.iter_lines():
                show(_piece(call, line))


async def stream_async(
    client: httpx.AsyncClient, calls: PaidCalls, question: str, show: Callable[[str], object]
) -> None:
    """Do the same in a task."""
    async with calls.hold_async(PRICES.dearest(question, MAX_OUTPUT_TOKENS)) as call:
        request = client.build_request("POST", PATH, json=_streamed(question))
        with call.free_if(*FREE):
            response = await client.send(request, stream=True)
        async with aclosing(response):
            with call.free_if(Refused):
                _check(response)
            async for line in response.aiter_lines():
                show(_piece(call, line))


def _request(question: str) -> dict[str, Any]:
    messages = [{"role": "user", "content": question}]
    return {"model": MODEL, "messages": messages, "max_completion_tokens": MAX_OUTPUT_TOKENS}


def _streamed(question: str) -> dict[str, Any]:
    return _request(question) | {"stream": True, "stream_options": {"include_usage": True}}


def _check(response: httpx.Response) -> None:
    """Raise ``Refused`` where nothing is billed, and the library's error for other failures."""
    if response.status_code in _REFUSED_STATUSES:
        raise Refused(f"the endpoint answered {response.status_code}")
    response.raise_for_status()


def _read(call: Call, response: httpx.Response) -> str:
    answer = response.json()
    call.read(_reply(answer["usage"]))
    return str(answer["choices"][0]["message"]["content"])


def _piece(call: Call, line: str) -> str:
    """Return the text of one line; the last but one has none, but says what the call used."""
    name, _, data = line.partition(": ")
    if name != "data" or data == "[DONE]":
        return ""
    chunk = json.loads(data)
    ended = not chunk["choices"] or chunk["choices"][0].get("finish_reason") is not None
    if ended and chunk.get("usage") is not None:  # Some endpoints name the usage so far each time.
        call.read(_reply(chunk["usage"]))
    text = str(chunk["choices"][0]["delta"].get("content") or "") if chunk["choices"] else ""
    if text:  # It is one token at least.
        call.show(Reply(0, call.shown.cost + PRICES.output_usd))
    return text


def _reply(usage: dict[str, Any]) -> Reply:
    details: dict[str, Any] = usage.get("prompt_tokens_details") or {}
    cached: int = details.get("cached_tokens") or 0
    new: int = usage["prompt_tokens"] - cached
    return PRICES.reply(new, usage["completion_tokens"], cache_read=cached)
