"""A pass over questions with any of the libraries, in any of the ways to call it."""

from __future__ import annotations

import asyncio
import importlib
import logging
from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from contextlib import nullcontext
from functools import partial
from typing import Any

import anthropic
import httpx
import openai

from engines.decision_bounds import DailySpend, RunBudget, logger

from examples.clients import anthropic_calls, httpx_calls, litellm_calls, openai_calls
from examples.clients.bounded import PaidCalls, Reply

# Any type: the library does not say what it exports.
litellm: Any = importlib.import_module("litellm")
litellm.suppress_debug_info = True
logger.setLevel(logging.ERROR)

TIMEOUT_S = 1.5
PATIENCE_S = 30.0
THREADS = 32
LIBRARIES = (openai_calls, anthropic_calls, litellm_calls, httpx_calls)
WAYS = ("ask", "stream", "ask_async", "stream_async")


def connect(library: Any, url: str, way: str = "ask", timeout_s: float = TIMEOUT_S) -> Any:
    """Return what ``way`` takes first, as the value of a ``with`` (or ``async with``) block."""
    if library is litellm_calls:
        return nullcontext({"api_base": url, "api_key": "none", "timeout": timeout_s})
    options: dict[str, Any] = {**library.OPTIONS, "base_url": url, "timeout": timeout_s}
    if library is httpx_calls:
        return httpx.AsyncClient(**options) if "async" in way else httpx.Client(**options)
    vendor, name = (openai, "OpenAI") if library is openai_calls else (anthropic, "Anthropic")
    return getattr(vendor, f"Async{name}" if "async" in way else name)(**options, api_key="none")


async def close(library: Any) -> None:
    """Close what a library without clients keeps open for the running loop."""
    if library is litellm_calls:
        await litellm.close_litellm_async_clients()


def dearest(library: Any, question: str) -> Reply:
    """Return the dearest reply by the price list of ``library``."""
    reply: Reply = library.PRICES.dearest(question, library.MAX_OUTPUT_TOKENS)
    return reply


class Pass:
    """A pass and its day, with what became of each question: the answer, or the error."""

    def __init__(self, cap_usd: float = 1.0) -> None:
        self.budget = RunBudget(10**6, 10**9)
        self.day: Any = DailySpend(cap_usd, lambda: "2024-05-01", None)
        self.calls = PaidCalls(self.budget, self.day)
        self.outcomes: dict[str, str | BaseException] = {}

    @property
    def held(self) -> tuple[int, int, float]:
        """How many calls hold a share of the pass and of the day, and how many USD."""
        return self.budget.in_flight, self.day._held.holders, self.day._held.amount

    def run(self, library: Any, way: str, url: str, questions: Sequence[str]) -> Pass:
        """Ask all ``questions`` at once, in the ``way`` named, and return the pass."""
        if "async" in way:
            asyncio.run(self._run_tasks(library, way, url, questions))
            return self
        with connect(library, url, way) as client, ThreadPoolExecutor(THREADS) as threads:
            list(threads.map(partial(self._ask, library, way, client), questions))
        return self

    async def _run_tasks(self, library: Any, way: str, url: str, questions: Sequence[str]) -> None:
        async with connect(library, url, way) as client:
            await asyncio.gather(
                *(self.ask_async(library, way, client, each) for each in questions)
            )
        await close(library)

    def _ask(self, library: Any, way: str, client: Any, question: str) -> None:
        pieces: list[str] = []
        show = (pieces.append,) if way == "stream" else ()
        try:
            answer = getattr(library, way)(client, self.calls, question, *show)
            self.outcomes[question] = answer or "".join(pieces)
        except Exception as error:
            self.outcomes[question] = error

    async def ask_async(self, library: Any, way: str, client: Any, question: str) -> None:
        """Ask in a task, and keep what became of it."""
        pieces: list[str] = []
        show = (pieces.append,) if way == "stream_async" else ()
        try:
            answer = await getattr(library, way)(client, self.calls, question, *show)
            self.outcomes[question] = answer or "".join(pieces)
        except (Exception, asyncio.CancelledError) as error:
            self.outcomes[question] = error
