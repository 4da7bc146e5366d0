/// The class `DailySpend`.

#include "decision_bounds/daily_spend.hpp"

#include "python_host/class_type.hpp"

namespace decision_bounds::python {

using HostSpend = DailySpend<Python>;

template <>
struct ClassOf<HostSpend> {
  static constexpr const char* type_name = "decision_bounds.DailySpend";
  static constexpr std::tuple fields = {
      Field{"_cap", &HostSpend::cap},       Field{"_today", &HostSpend::today},
      Field{"_ledger", &HostSpend::ledger}, Field{"_changed", &HostSpend::changed_},
      Field{"_held", &HostSpend::held_},    Field{"_day", &HostSpend::day_},
      Field{"_cost", &HostSpend::cost_},    Field{"_capped", &HostSpend::capped_},
  };
};

template struct Instance<HostSpend>;

static Ref init(const Python& host, const Arguments& arguments) {
  const State& state = *host.state;
  const Ref changed = call_method(interned("Condition"), state.threading);
  const Ref held = call(state.global("_Held"));
  const Ref day = interned("");
  const Ref cost = Number(0.0);
  PyObject* values[] = {arguments[0], arguments[1], arguments[2], arguments[3], changed.get(),
                        held.get(),   day.get(),    cost.get(),   Py_False};
  return set_fields<HostSpend>(host, Arguments(values));
}

constexpr Definition daily_spend_operations[] = {
    {"__init__", init},
    {"spent", method<&HostSpend::spent>},
    {"admit", method<&HostSpend::admit>},
    {"charge", method<&HostSpend::charge>},
    {"_give_back", method<&HostSpend::give_back>},
    {"_today_locked", method<&HostSpend::today_locked>},
    {"_spent_since", method<&HostSpend::spent_since>},
};

const ClassDefinition daily_spend_class = define_class<HostSpend>(daily_spend_operations);

}  // namespace decision_bounds::python
