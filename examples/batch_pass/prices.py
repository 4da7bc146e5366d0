"""What an attempt may cost at most, from the endpoint's price list and the limit of an answer."""

from __future__ import annotations

from examples.batch_pass.endpoint import (
    INPUT_TOKEN_USD,
    MAX_OUTPUT_TOKENS,
    OUTPUT_TOKEN_USD,
    PROMPT_TOKENS,
)
from examples.batch_pass.remote import Reply


def dearest(size: int) -> Reply:
    """Return the dearest reply that a request of ``size`` bytes may get, without a decision.

    It is also what an attempt is counted at that was sent and whose reply was never read.
    """
    # A token is at least one byte, and every attempt is sent with the limit of its answer.
    tokens = PROMPT_TOKENS + size
    return Reply("", tokens, tokens * INPUT_TOKEN_USD + MAX_OUTPUT_TOKENS * OUTPUT_TOKEN_USD)
