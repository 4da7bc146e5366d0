/// The class `DailySpend`: its declaration, its storage and its operations.

#include <cstddef>

#include "decision_bounds/daily_spend.hpp"
#include "python_host/declaration.hpp"
#include "python_host/imports.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostSpend = DailySpend<Python>;

constexpr Field fields[] = {
    BOUND_FIELD("_cap", HostSpend, cap),       BOUND_FIELD("_today", HostSpend, today),
    BOUND_FIELD("_ledger", HostSpend, ledger), BOUND_FIELD("_changed", HostSpend, changed_),
    BOUND_FIELD("_held", HostSpend, held_),    BOUND_FIELD("_day", HostSpend, day_),
    BOUND_FIELD("_cost", HostSpend, cost_),    BOUND_FIELD("_capped", HostSpend, capped_),
};

constinit auto attributes = attributes_of<HostSpend>(fields);

constexpr Declaration declaration = {"DailySpend", R"(
class DailySpend:
    """The bound of what the paid calls of one UTC day cost (USD), continued from a ledger.

    One for all the paid calls of a client, from any thread, across days. A call holds what it may
    cost from ``admit`` until its share is settled, and is counted on the day on which it settles.
    """

    def __init__(self, cap: float, today: Callable[[], str],
                 ledger: Callable[[str], float] | None) -> None:
        """Bound each day by ``cap`` USD.

        ``today()`` returns today's UTC date (``YYYY-MM-DD``), ``ledger(date)`` what was paid since
        that date (USD; None: nothing). Both are asked with the lock held, the ledger once for each
        date, and must not use this object. A ledger that fails is logged and counts as 0.
        """

    def spent(self) -> float:
        """What the paid calls of today cost so far, USD, without what calls in flight hold."""

    def admit(self, bound: Callable[[], float], *, deadline: float | None,
              clock: Callable[[], float], stopping: Callable[[], bool]) -> Share:
        """Admit a call that may cost ``bound()`` USD, or wait while calls in flight hold the rest.

        ``bound`` is asked again after each wait; it returns infinity where the cost is not known.
        Raises ``DecisionBudgetExceeded`` where today's settled calls have reached the cap (logged
        once a day) and, only while it waits, ``DecisionStopped`` where ``stopping()`` says so and
        ``DecisionTimeout`` where ``clock()`` has reached ``deadline`` (seconds; None: no limit).
        Whatever is raised, nothing is held.
        """

    def charge(self, reply: PaidReply) -> None:
        """Count what a reply cost without any share: sent, never read, but perhaps billed."""

    def _give_back(self, held: float, reply: PaidReply | None) -> None:
        """End a call that held ``held`` USD, with its paid reply or None.

        The amount is given back in every case. What reading the date or the reply raises is raised
        here, and the cost is then not counted.
        """

    def _today_locked(self) -> float:
        """Today's settled spend, USD, starting a new day where the date has changed."""

    def _spent_since(self, day: str) -> float:
        """What the ledger says that the paid calls since ``day`` cost, USD, or 0.0."""
)"};

constexpr Definition operations[] = {
    {"__init__",
     [](const Python& host, const Arguments& arguments) {
       auto& spend = arguments.self<HostSpend>();
       spend.cap = arguments.get<Number>(1);
       spend.today = arguments.get<Function>(2);
       spend.ledger = arguments.get<Function>(3);
       spend.changed_ = Condition(call_method("Condition", host.state->threading));
       spend.held_ = HeldRecord(call(host.state->global(Name::held)));
       spend.day_ = interned("");
       spend.cost_ = 0.0;
       spend.capped_ = Ref(false);
       return Ref::none();
     }},
    {"spent", method<&HostSpend::spent>},
    {"admit", method<&HostSpend::admit>},
    {"charge", method<&HostSpend::charge>},
    {"_give_back", method<&HostSpend::give_back>},
    {"_today_locked", method<&HostSpend::today_locked>},
    {"_spent_since", method<&HostSpend::spent_since>},
};

}  // namespace

template <>
std::span<const Field> fields_of<HostSpend>() {
  return fields;
}

void bind_daily_spend(State* state) {
  bind_class(state, declaration,
             make_type<HostSpend>(state->module, "decision_bounds.DailySpend", attributes.data()),
             fields, operations);
}

}  // namespace decision_bounds::python
