#pragma once

/// What one copy of the module keeps, made when it is loaded and not written after. Nothing of it
/// is shared with another copy.

#include <array>
#include <cstdint>

#include "decision_bounds/run_budget.hpp"
#include "python_host/interpreter.hpp"
#include "python_host/locks.hpp"

namespace decision_bounds::python {

struct State {
  /// The names that the frequent operations look up.
  struct Names {
    Ref cached = interned("cached");
    Ref input_tokens = interned("input_tokens");
    Ref cost = interned("cost");
    Ref wait = interned("_wait");
    Ref poll_s = interned("_POLL_S");
    Ref share = interned("Share");
    Ref stopping = interned("stopping");
  };

  PyObject* module;  ///< Borrowed: the module owns its state.
  Ref globals;       ///< The dictionary of the module, which the collector may clear first.
  Names names;
  Ref threading = import("threading");
  Ref condition_type = attribute(threading, "Condition");
  Locks locks{threading, condition_type};
  Ref round = attribute(import("builtins"), "round");
  Ref deadline_and_clock = tuple_of(interned("deadline"), interned("clock"));
  Ref exc_info = tuple_of(interned("exc_info"));
  std::array<Ref, decision_bounds::summary_keys.size()> summary_keys;
  Ref empty_summary;  ///< Has the keys of a summary. A copy of it is made for each.
  Ref operation_type;
  Ref held_type;            ///< The module's own `_Held`.
  Ref has_default_factory;  ///< What a record's constructor gets for a field with a factory.
  /// The module's own `Share`, and its version as it was loaded: while it has that, a share is made
  /// without its constructor, which saves a tenth of `hold` and `settle`.
  Ref share_type;
  std::uint64_t share_version = 0;

  explicit State(PyObject* loaded);
  /// The state of a module that is loaded.
  static State* of(PyObject* module) { return *static_cast<State**>(PyModule_GetState(module)); }
  /// Takes in, once all names are bound, what the operations use of them as it was loaded.
  void remember_surface();
  int traverse(visitproc visit, void* arg) const;

  /// What the module binds to a name at this moment; raises `NameError` where it binds nothing.
  Ref global(const Ref& name) const;
  Ref global(const char* name) const { return global(interned(name)); }
};

}  // namespace decision_bounds::python
