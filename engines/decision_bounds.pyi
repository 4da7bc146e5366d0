"""The bounds a decision client keeps on what it pays: the errors that end a call, the budget of a
batch pass and the daily cost cap.

A paid call holds a share of each bound from the moment it is admitted until it ends, waits while
the calls in flight hold the rest, and is refused when what was paid fills the bound. With ``most``,
the most that a request may come to, as a reply (``PaidReply``):

    day = DailySpend(1.00, utc_today, ledger=None)  # one for all calls
    budget = RunBudget(max_calls=100, max_tokens=50_000)  # one for each pass

    with budget.hold(most.input_tokens) as of_pass:
        with day.admit(
            lambda: most.cost, deadline=None, clock=time.monotonic, stopping=budget.stopping
        ) as of_day:
            paid = most  # what the call counts as where its reply cannot be read
            try:
                paid = ask(request)
            finally:
                of_day.settle(paid)
                of_pass.settle(paid)

Every thread enters the bounds in the same order. Costs are in USD, sizes in bytes, times in
seconds. An amount that is not known is infinite: such a call waits until it is alone.

The module itself raises ``DecisionBudgetExceeded``, ``DecisionStopped`` and ``DecisionTimeout``,
whose base is ``DecisionError``; ``DecisionUnavailable`` is for the client to raise. What a function
that was handed in raises passes through as it is, except for the ledger, whose failure is logged.
"""

import logging
import threading
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, Protocol

logger: logging.Logger
_POLL_S: float

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
        """Whether the reply came from the client's cache; no paid call was made for it."""

    @property
    def input_tokens(self) -> int:
        """Input tokens that the paid call used."""

    @property
    def cost(self) -> float:
        """What the paid call cost, USD."""

def never() -> bool:
    """A stop that never comes."""

def _nothing(_reply: PaidReply | None) -> None:
    """Give back a share of nothing."""

class Share:
    """What one admitted call holds of one bound, until the call ends.

    Used as the object of a ``with`` block around the call. It is settled once: with the paid reply,
    or, on leaving the block, without one. A share that is dropped without either gives nothing back.
    """

    def __init__(self, give_back: Callable[[PaidReply | None], None] = _nothing) -> None:
        """Hold ``give_back``, which is called once, with the paid reply or None."""

    def settle(self, reply: PaidReply | None) -> None:
        """End the call: with the paid reply, which its bound then counts, or with None.

        Only the first call does anything, also when several threads settle at once. The give-back
        function is not called again, whatever it raises; that is raised here. A share of a
        ``RunBudget`` keeps its slot and its tokens where reading ``reply.cached`` raises, and where
        it is true (a cached reply belongs into ``RunBudget.charge``, without a share);
        ``RunBudget.release`` of the same tokens then gives them back.
        """

    def __enter__(self) -> Share:
        """Return the share itself."""

    def __exit__(self, *_exc: object) -> None:
        """End the call without a reply, unless it was settled before."""

@dataclass
class _Held:
    """What the admitted calls hold of one bound, in its unit (USD or input tokens).

    An infinite share, of a call whose use is not known, runs alone. The bound's lock guards all this.

    - ``holders``: calls that hold a share.
    - ``amount``: the sum of the finite shares.
    - ``unbounded``: how many of the shares are infinite.
    """

    holders: int = 0
    amount: float = 0.0
    unbounded: int = 0

    def admits(self, share: float, used: float, limit: float) -> bool:
        """Whether a call that would hold ``share`` may start, with ``used`` of ``limit`` settled."""

    def take(self, share: float) -> None:
        """Add the share of a call just admitted."""

    def give_back(self, share: float) -> None:
        """Remove the share that an ending call took. No field goes below zero."""

def _wait(
    changed: threading.Condition,
    stopping: Callable[[], bool],
    *,
    deadline: float | None = None,
    clock: Callable[[], float] | None = None,
) -> None:
    """Wait on ``changed``, whose lock the caller holds, until it is notified or ``_POLL_S`` passes.

    The caller decides again after each return. Raises, before any wait, ``DecisionStopped`` where
    ``stopping()`` says so, and ``DecisionTimeout`` where ``clock()`` has reached ``deadline`` (s).
    """

@dataclass
class _Charges:
    """The most that one paid reply came to (USD or input tokens): per byte of its request, and whole.

    Neither maximum ever falls. The lock of the rates guards them.

    - ``per_byte``: the most per byte of a request.
    - ``per_call``: the most of a whole reply.
    """

    per_byte: float = 0.0
    per_call: float = 0.0

    def bound(self, size: int) -> float:
        """The most that a request of ``size`` bytes may come to."""

    def learn(self, size: int, charge: float) -> None:
        """Take in what the reply to a request of ``size`` bytes came to."""

class RequestRates:
    """What a request may cost and use before its reply says, learned from the paid replies.

    Shared by all the calls of a client, from any thread. The dearest replies bound the requests of
    every feature (kind of request), whichever feature they were of. A cost is infinite before the
    first reply of its feature, input tokens before the first of any; such a call runs alone.
    """

    def __init__(self) -> None:
        """Know nothing yet."""

    def cost(self, size: int, feature: str) -> float:
        """The most that a request of ``size`` bytes may cost, USD; infinite while not known."""

    def tokens(self, size: int) -> float:
        """The most input tokens that a request of ``size`` bytes may use; infinite while not known."""

    def learn(self, size: int, feature: str, reply: PaidReply) -> None:
        """Take in what the paid reply to a request of ``size`` bytes cost and used.

        What reading the reply raises is raised here; the feature is known all the same.
        """

@dataclass
class RunBudget:
    """The bound of one batch pass: paid calls, input tokens, and whether it was asked to stop.

    Shared by the threads that make the pass's calls. A paid call holds a call slot and the input
    tokens that it may use (infinite where not known) from ``hold`` or ``reserve`` until it ends, by
    its share or by exactly one ``charge`` or ``release`` of the same tokens.

    - ``max_calls``: the most calls, paid and in flight together.
    - ``max_tokens``: the input tokens of the paid calls from which on no call is admitted.
    - ``calls``: calls settled with a paid reply.
    - ``input_tokens``: input tokens of the paid replies.
    - ``cost``: cost of the paid replies, USD.
    - ``cache_hits``: cached replies recorded.
    - ``in_flight``: calls admitted and not yet settled.
    - ``should_stop``: whether the pass is to stop; asked by each call on entry and while it waits.
    """

    max_calls: int
    max_tokens: int
    calls: int = 0
    input_tokens: int = 0
    cost: float = 0.0
    cache_hits: int = 0
    in_flight: int = 0
    should_stop: Callable[[], bool] = field(default=never, repr=False, compare=False)
    _held_tokens: _Held = field(default_factory=_Held, repr=False, compare=False)
    _changed: threading.Condition = field(
        default_factory=threading.Condition, repr=False, compare=False
    )

    def stopping(self) -> bool:
        """Whether the pass has been asked to stop. Takes no lock."""

    def exhausted(self) -> bool:
        """Whether no call slot or no token is left; calls in flight count as calls."""

    def _exhausted_locked(self) -> bool:
        """As ``exhausted``, for a caller that holds the lock."""

    def reserve(self, tokens: float = 0.0) -> None:
        """Admit a call that may use ``tokens``, or wait while calls in flight hold what is left.

        Raises ``DecisionStopped`` where the pass was asked to stop, on entry or while it waits, and
        ``DecisionBudgetExceeded`` where every call slot is taken or the paid calls have used the
        tokens. Whatever is raised, nothing is held.
        """

    def hold(self, tokens: float) -> Share:
        """Admit a call as ``reserve`` does; return its share, which gives it all back exactly once."""

    def release(self, tokens: float = 0.0) -> None:
        """End a call without a paid reply: give back its slot and its tokens."""

    def charge(self, result: PaidReply, tokens: float = 0.0) -> None:
        """Count a paid reply and give back the slot and the tokens of its call.

        A cached reply is only counted as a cache hit. What reading the reply raises is raised here;
        the steps before it stay done.
        """

    def summary(self) -> dict[str, Any]:
        """What the settled calls have used against the limits: ``calls`` (paid ones), ``cache_hits``,
        ``input_tokens``, ``cost_usd`` (to 6 decimals), ``max_calls`` and ``max_tokens``.
        """

    def _summary_locked(self) -> dict[str, Any]:
        """As ``summary``, for a caller that holds the lock."""

class DailySpend:
    """The bound of what the paid calls of one UTC day cost (USD), continued from a ledger.

    One for all the paid calls of a client, from any thread, across days. A call holds what it may
    cost from ``admit`` until its share is settled, and is counted on the day on which it settles.
    """

    def __init__(
        self, cap: float, today: Callable[[], str], ledger: Callable[[str], float] | None
    ) -> None:
        """Bound each day by ``cap`` USD.

        ``today()`` returns today's UTC date (``YYYY-MM-DD``), ``ledger(date)`` what was paid since
        that date (USD; None: nothing). Both are asked with the lock held, the ledger once for each
        date, and must not use this object. A ledger that fails is logged and counts as 0.
        """

    def spent(self) -> float:
        """What the paid calls of today cost so far, USD, without what calls in flight hold."""

    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """Admit a call that may cost ``bound()`` USD, or wait while calls in flight hold the rest.

        ``bound`` is asked again after each wait; it returns infinity where the cost is not known.
        Raises ``DecisionBudgetExceeded`` where today's settled calls have reached the cap (logged
        once a day) and, only while it waits, ``DecisionStopped`` where ``stopping()`` says so and
        ``DecisionTimeout`` where ``clock()`` has reached ``deadline`` (seconds; None: no limit).
        A call outside a pass hands in ``never`` as ``stopping``. Whatever is raised, nothing is held.
        """

    def charge(self, reply: PaidReply) -> None:
        """Count, without a share, what a reply cost, or what a call never read may be billed."""

    def _give_back(self, held: float, reply: PaidReply | None) -> None:
        """End a call that held ``held`` USD, with its paid reply or None. It is always given back.

        What reading the date or the reply raises is raised here; the cost is then not counted.
        """

    def _today_locked(self) -> float:
        """Today's settled spend, USD, starting a new day where the date has changed."""

    def _spent_since(self, day: str) -> float:
        """What the ledger says that the paid calls since ``day`` cost, USD, or 0.0."""
