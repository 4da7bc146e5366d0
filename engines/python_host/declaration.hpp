#pragma once

/// The classes and functions of the module, each declared once in the host's language: names,
/// fields, parameters, defaults, declared types and documentation. The host compiles the
/// declarations when the module is loaded, and so every argument error and every answer to
/// `inspect` is its own; the bodies and the storage are C++.

#include <span>

#include "python_host/attributes.hpp"
#include "python_host/operation.hpp"

namespace decision_bounds::python {

/// The body of the operation that a declaration gives this name.
struct Definition {
  const char* name;
  Body body;
};

/// A class or a function.
struct Declaration {
  const char* name;
  const char* text;  ///< Its functions have no body but their documentation.
};

/// Executes the declaration in the module, binds what it declares there as it is, and returns it.
Ref bind_declared(State* state, const Declaration& declaration);

/// Binds the function that is declared, with this body.
void bind_function(State* state, const Declaration& declaration, Body body);

/// Gives `type`, which stores the fields, all that the class declares, and binds it. Where fields
/// are declared, the class becomes a record of the host's own facility.
void bind_class(State* state, const Declaration& declaration, const Ref& type,
                std::span<const Field> fields, std::span<const Definition> operations);

}  // namespace decision_bounds::python
