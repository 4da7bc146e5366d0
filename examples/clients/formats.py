"""The forms in which paid text endpoints answer: a body, or the events of a stream."""

from __future__ import annotations

import json
from collections.abc import Iterator
from dataclasses import dataclass, replace
from typing import Any


@dataclass(frozen=True)
class Answer:
    """The pieces of one answer's text, and the tokens that it is billed for."""

    pieces: tuple[str, ...]
    new_tokens: int
    cache_read_tokens: int
    cache_write_tokens: int
    output_tokens: int
    running_usage: bool  # Each piece of a stream comes with the usage so far, as some endpoints do.


class Completions:
    """Cached input is part of ``prompt_tokens``; a stream names its usage once, in the end."""

    writes_cache = False

    def question(self, request: dict[str, Any]) -> str:
        """Return the text of the request's last message, which may be in parts."""
        content = request["messages"][-1]["content"]
        return content if isinstance(content, str) else "".join(part["text"] for part in content)

    def max_output_tokens(self, request: dict[str, Any]) -> int:
        """Return how long the answer may be."""
        return int(request.get("max_completion_tokens") or request["max_tokens"])

    def body(self, model: str, answer: Answer, told: bool) -> bytes:
        """Return the answer as one body, which names its usage if that is ``told``."""
        message = {"role": "assistant", "content": "".join(answer.pieces)}
        choice = {"index": 0, "message": message, "finish_reason": "stop"}
        usage = {"usage": self._usage(answer)} if told else {}
        return _json({**_completion(model, ""), "choices": [choice], **usage})

    def events(self, model: str, answer: Answer) -> Iterator[bytes]:
        """Yield the events of the answer's stream."""
        for number, piece in enumerate(answer.pieces, 1):
            so_far = self._usage(replace(answer, output_tokens=number))
            usage = so_far if answer.running_usage else None
            choice = {"index": 0, "delta": {"content": piece}, "finish_reason": None}
            yield _event({**_completion(model, ".chunk"), "choices": [choice], "usage": usage})
        last: dict[str, Any] = {"index": 0, "delta": {}, "finish_reason": "stop"}
        yield _event({**_completion(model, ".chunk"), "choices": [last], "usage": None})
        usage = self._usage(answer)
        yield _event({**_completion(model, ".chunk"), "choices": [], "usage": usage})
        yield b"data: [DONE]\n\n"

    def _usage(self, answer: Answer) -> dict[str, Any]:
        prompt = answer.new_tokens + answer.cache_read_tokens
        return {
            "prompt_tokens": prompt,
            "completion_tokens": answer.output_tokens,
            "total_tokens": prompt + answer.output_tokens,
            "prompt_tokens_details": {"cached_tokens": answer.cache_read_tokens},
        }


class Messages(Completions):
    """Cached input is named apart; a stream names its input first, and the rest before its end."""

    writes_cache = True

    def max_output_tokens(self, request: dict[str, Any]) -> int:
        return int(request["max_tokens"])

    def body(self, model: str, answer: Answer, told: bool) -> bytes:
        content = [{"type": "text", "text": "".join(answer.pieces)}]
        usage = {"usage": self._usage(answer)} if told else {}
        return _json({**self._message(model, content, "end_turn"), **usage})

    def events(self, model: str, answer: Answer) -> Iterator[bytes]:
        begun = {"usage": {**self._usage(answer), "output_tokens": 1}}
        yield _typed({"type": "message_start", "message": self._message(model, [], None) | begun})
        block = {"type": "text", "text": ""}
        yield _typed({"type": "content_block_start", "index": 0, "content_block": block})
        for piece in answer.pieces:
            delta = {"type": "text_delta", "text": piece}
            yield _typed({"type": "content_block_delta", "index": 0, "delta": delta})
        yield _typed({"type": "content_block_stop", "index": 0})
        stop = {"stop_reason": "end_turn", "stop_sequence": None}
        usage = {"output_tokens": answer.output_tokens}
        yield _typed({"type": "message_delta", "delta": stop, "usage": usage})
        yield _typed({"type": "message_stop"})

    def _usage(self, answer: Answer) -> dict[str, Any]:
        return {
            "input_tokens": answer.new_tokens,
            "cache_read_input_tokens": answer.cache_read_tokens,
            "cache_creation_input_tokens": answer.cache_write_tokens,
            "output_tokens": answer.output_tokens,
        }

    @staticmethod
    def _message(model: str, content: list[Any], stop: str | None) -> dict[str, Any]:
        message = {"id": "msg_1", "type": "message", "role": "assistant", "model": model}
        return {**message, "content": content, "stop_reason": stop}


def _completion(model: str, suffix: str) -> dict[str, Any]:
    return {"id": "chat_1", "object": f"chat.completion{suffix}", "created": 0, "model": model}


def _json(value: dict[str, Any]) -> bytes:
    return json.dumps(value).encode()


def _event(value: dict[str, Any]) -> bytes:
    return b"data: " + _json(value) + b"\n\n"


def _typed(value: dict[str, Any]) -> bytes:
    return f"event: {value['type']}\n".encode() + _event(value)
