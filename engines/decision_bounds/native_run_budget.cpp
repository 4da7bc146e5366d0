#include "decision_bounds/native_run_budget.hpp"

namespace decision_bounds {

template struct RunBudget<native::Native>;

native::PassSnapshot native::snapshot(RunBudget& budget) {
  const std::lock_guard held(budget.changed_);
  const auto number = [](Count count) { return static_cast<std::int64_t>(count); };
  return {number(budget.calls), number(budget.cache_hits), number(budget.input_tokens),
          budget.cost,          number(budget.in_flight),  budget.held_tokens_.holdings()};
}

}  // namespace decision_bounds
