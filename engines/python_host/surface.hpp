#pragma once

/// What the module binds: the names that the text of the surface (engines/decision_bounds.pyi)
/// declares, each with its body in C++.

#include <span>

#include "python_host/operation.hpp"
#include "python_host/state.hpp"

namespace decision_bounds::python {

/// A class of the surface: what stores its objects, and the bodies of its operations.
struct ClassDefinition {
  const char* type_name;  ///< "decision_bounds." and the name that is declared.
  Ref (*make_type)(PyObject* module);
  std::span<const Definition> operations;
};

// Each is defined in the file of its name.
extern const ClassDefinition share_class;
extern const ClassDefinition held_class;
extern const ClassDefinition charges_class;
extern const ClassDefinition request_rates_class;
extern const ClassDefinition run_budget_class;
extern const ClassDefinition daily_spend_class;
extern const std::span<const Definition> functions;

/// Executes the text in the module, in order. What it declares under the name of a body above gets
/// that body: signatures, defaults, declared types, records and documentation stay the host's own.
void bind_surface(State* state);

}  // namespace decision_bounds::python
