/// The class `RunBudget`: its declaration, its storage and its operations.

#include <cstddef>

#include "decision_bounds/run_budget.hpp"
#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostBudget = RunBudget<Python>;

constexpr Field fields[] = {
    BOUND_FIELD("max_calls", HostBudget, max_calls),
    BOUND_FIELD("max_tokens", HostBudget, max_tokens),
    BOUND_FIELD("calls", HostBudget, calls),
    BOUND_FIELD("input_tokens", HostBudget, input_tokens),
    BOUND_FIELD("cost", HostBudget, cost),
    BOUND_FIELD("cache_hits", HostBudget, cache_hits),
    BOUND_FIELD("in_flight", HostBudget, in_flight),
    BOUND_FIELD("should_stop", HostBudget, should_stop),
    BOUND_FIELD("_held_tokens", HostBudget, held_tokens_),
    BOUND_FIELD("_changed", HostBudget, changed_),
};

constinit auto attributes = attributes_of<HostBudget>(fields);

constexpr Declaration declaration = {"RunBudget", R"(
class RunBudget:
    """The bound of one batch pass: paid calls, input tokens, and whether it was asked to stop.

    Shared by the threads that make the pass's calls. A paid call holds a call slot and the input
    tokens that it may use (infinite where not known) from ``hold`` or ``reserve`` until it ends, by
    its share or by exactly one ``charge`` or ``release`` of the same tokens. ``cost`` is in USD.
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
        """As ``reserve``; return the share that gives the slot and the tokens back exactly once."""

    def release(self, tokens: float = 0.0) -> None:
        """End a call without a paid reply: give back its slot and its tokens."""

    def charge(self, result: PaidReply, tokens: float = 0.0) -> None:
        """Count a paid reply and give back the slot and the tokens of its call.

        A cached reply is only counted as a cache hit. What reading the reply raises is raised here;
        the steps before it stay done.
        """

    def summary(self) -> dict[str, Any]:
        """What the settled calls have used against the limits; the cost in USD, to 6 decimals."""

    def _summary_locked(self) -> dict[str, Any]:
        """As ``summary``, for a caller that holds the lock."""
)"};

constexpr Definition operations[] = {
    {"stopping", method<&HostBudget::stopping>},
    {"exhausted", method<&HostBudget::exhausted>},
    {"_exhausted_locked", method<&HostBudget::exhausted_locked>},
    {"reserve", method<&HostBudget::reserve>},
    {"hold", method<&HostBudget::hold>},
    {"release", method<&HostBudget::release>},
    {"charge", method<&HostBudget::charge>},
    {"summary", method<&HostBudget::summary>},
    {"_summary_locked", method<&HostBudget::summary_locked>},
};

}  // namespace

template <>
std::span<const Field> fields_of<HostBudget>() {
  return fields;
}

void bind_run_budget(State* state) {
  bind_class(state, declaration,
             make_type<HostBudget>(state->module, "decision_bounds.RunBudget", attributes.data()),
             fields, operations);
}

}  // namespace decision_bounds::python
