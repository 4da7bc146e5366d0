#pragma once

/// The bound of one batch pass in plain C++.

#include <cstdint>

#include "decision_bounds/native_host.hpp"
#include "decision_bounds/run_budget.hpp"

namespace decision_bounds {

extern template struct RunBudget<native::Native>;

namespace native {

/// The bound of one batch pass, shared by the threads that make its calls. It must outlive the
/// shares that it made.
///
/// Its members are public so that a pass is made with their names, `{.max_calls = 40, ...}`. From
/// the first call on they change under the lock: beside other threads, read them by `summary` and
/// `snapshot` only, and write none.
using RunBudget = decision_bounds::RunBudget<Native>;

/// What a pass has counted and what its calls in flight hold, all at one moment.
struct PassSnapshot {
  std::int64_t calls{};
  std::int64_t cache_hits{};
  std::int64_t input_tokens{};
  double cost_usd{};  ///< Not rounded.
  std::int64_t in_flight{};
  Holdings held{};  ///< Input tokens.

  bool operator==(const PassSnapshot&) const = default;
};

PassSnapshot snapshot(RunBudget& budget);

}  // namespace native

}  // namespace decision_bounds
