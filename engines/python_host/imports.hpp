#pragma once

/// The host's facilities, as a loading module asks for them.

#include "python_host/ref.hpp"

namespace decision_bounds::python {

inline Ref import(const char* module) { return Ref::checked(PyImport_ImportModule(module)); }

inline Ref attribute(const Ref& object, const char* name) {
  return Ref::checked(PyObject_GetAttrString(object.get(), name));
}

inline Ref interned(const char* text) { return Ref::checked(PyUnicode_InternFromString(text)); }

}  // namespace decision_bounds::python
