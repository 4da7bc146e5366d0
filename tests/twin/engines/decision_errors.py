"""The errors that end a decision call, what a bound reads of a reply, and the stock callbacks.

They stand apart from ``engines.decision_bounds`` only to keep both files short: clients import them
from there.
"""

from __future__ import annotations

from typing import Protocol


class DecisionError(RuntimeError):
    """Raised when a decision call fails (after retries)."""


class DecisionBudgetExceeded(DecisionError):
    """Raised when a ``RunBudget`` or the daily cost cap would be exceeded by another call."""


class DecisionUnavailable(DecisionError):
    """Raised while the endpoint refuses requests: it is not asked until the window ends."""


class DecisionTimeout(DecisionError):
    """Raised when a call without a budget (a tool's) runs out of its deadline."""


class DecisionStopped(DecisionError):
    """Raised when the pass that a call belongs to has been asked to stop."""


class PaidReply(Protocol):
    """What a bound reads of a reply (a ``DecisionResult``)."""

    @property
    def cached(self) -> bool:
        """Whether the reply came from the client's cache: no paid call was made for it."""

    @property
    def input_tokens(self) -> int:
        """Input tokens that the paid call used."""

    @property
    def cost(self) -> float:
        """What the paid call cost, USD."""


def never() -> bool:
    """A stop that never comes."""
    return False


def _nothing(_reply: PaidReply | None) -> None:
    """Give back a share of nothing."""
