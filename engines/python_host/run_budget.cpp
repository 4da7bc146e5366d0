/// The class `RunBudget`.

#include "decision_bounds/run_budget.hpp"

#include <array>

#include "python_host/class_type.hpp"

namespace decision_bounds::python {

using HostBudget = RunBudget<Python>;

template <>
struct ClassOf<HostBudget> {
  static constexpr const char* type_name = "decision_bounds.RunBudget";
  static constexpr std::tuple fields = {
      Field{"max_calls", &HostBudget::max_calls},
      Field{"max_tokens", &HostBudget::max_tokens},
      Field{"calls", &HostBudget::calls},
      Field{"input_tokens", &HostBudget::input_tokens},
      Field{"cost", &HostBudget::cost},
      Field{"cache_hits", &HostBudget::cache_hits},
      Field{"in_flight", &HostBudget::in_flight},
      Field{"should_stop", &HostBudget::should_stop},
      Field{"_held_tokens", &HostBudget::held_tokens_},
      Field{"_changed", &HostBudget::changed_},
  };
};

template struct Instance<HostBudget>;

/// Makes the tally and the condition, which each budget has for itself, where none is handed in.
static Ref init(const Python& host, const Arguments& arguments) {
  constexpr std::size_t tally = field_count<HostBudget> - 1;
  constexpr std::size_t condition = field_count<HostBudget>;
  std::array<PyObject*, field_count<HostBudget> + 1> values{};
  for (std::size_t index = 0; index < values.size(); ++index) {
    values[index] = arguments[index];
  }
  const State& state = *host.state;
  Ref held;
  Ref changed;
  if (values[tally] == state.has_default_factory.get()) {
    held = call(state.held_type);
    values[tally] = held.get();
  }
  if (values[condition] == state.has_default_factory.get()) {
    changed = call(state.condition_type);
    values[condition] = changed.get();
  }
  return set_fields<HostBudget>(host, Arguments(values.data()));
}

constexpr Definition run_budget_operations[] = {
    {"__init__", init},
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

const ClassDefinition run_budget_class = define_class<HostBudget>(run_budget_operations);

}  // namespace decision_bounds::python
