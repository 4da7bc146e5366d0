#pragma once

/// What one copy of the module keeps. Nothing of it is shared with another copy.

#include <array>
#include <cstddef>

#include "decision_bounds/run_budget.hpp"
#include "python_host/locks.hpp"
#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// The names that the operations look up: properties of replies, names that the module binds, and
/// what they call of the host's.
enum class Name : std::size_t {
  cached,
  input_tokens,
  cost,
  wait,
  poll_s,
  share,
  held,
  charges,
  budget_exceeded,
  timeout,
  stopped,
  logger,
  warning,
  exc_info,
  stopping,
  deadline,
  clock,
};

inline constexpr std::array name_texts = {
    "cached",          "input_tokens",    "cost",
    "_wait",           "_POLL_S",         "Share",
    "_Held",           "_Charges",        "DecisionBudgetExceeded",
    "DecisionTimeout", "DecisionStopped", "logger",
    "warning",         "exc_info",        "stopping",
    "deadline",        "clock",
};
static_assert(name_texts.size() == static_cast<std::size_t>(Name::clock) + 1);

struct State {
  PyObject* module = nullptr;   ///< Borrowed: the module owns its state.
  PyObject* globals = nullptr;  ///< Borrowed: the dictionary of the module.
  HostLocks locks;
  Ref threading;  ///< The host's module.
  Ref operation_type;
  Ref give_back_type;
  Ref round;  ///< The host's `round`.
  Ref cost_decimals;
  Ref deadline_and_clock;  ///< The keywords of `_wait`.
  Ref exc_info;            ///< The keyword of a logger's `warning`.
  std::array<Ref, name_texts.size()> names;
  std::array<Ref, decision_bounds::summary_keys.size()> summary_keys;
  /// The module's own `Share`, and the version tag that says that it is as it was loaded: then one
  /// is made without its constructor, which saves a tenth of `hold` and `settle`.
  PyTypeObject* share_type = nullptr;
  unsigned share_version = 0;

  void load(PyObject* loaded);
  void remember_share(const Ref& type);
  int traverse(visitproc visit, void* arg) const;

  PyObject* name(Name looked_up) const { return names[static_cast<std::size_t>(looked_up)].get(); }

  /// What the module binds to a name at this moment; raises `NameError` where it binds nothing.
  Ref global(Name looked_up) const;
};

}  // namespace decision_bounds::python
