#pragma once

/// The classes and functions of the module, each declared once in the host's language: names,
/// fields, parameters, defaults, declared types and documentation. The host compiles the
/// declarations when the module is loaded, and so every argument error and every answer to
/// `inspect` is its own; the bodies and the storage are C++.

#include <array>
#include <cstddef>
#include <span>

#include "python_host/instance.hpp"
#include "python_host/operation.hpp"

namespace decision_bounds::python {

/// The body of the operation that a declaration gives this name.
struct Definition {
  const char* name;
  Body body;
};

/// A field of a bound, and the attribute that it is.
struct Field {
  const char* name;
  std::size_t offset;  ///< In the bound.
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

/// Makes a type whose objects store a `Bound`, with each of its fields as a plain attribute.
/// `qualified_name` stays where it is: the type points at it.
template <typename Bound>
Ref make_type(PyObject* module, const char* qualified_name,
              const Field (&fields)[field_count<Bound>]) {
  using Stored = Instance<Bound>;
  const auto offset = [](std::size_t place) { return static_cast<Py_ssize_t>(place); };
  std::array<PyMemberDef, field_count<Bound> + 3> members{};
  for (std::size_t index = 0; index < field_count<Bound>; ++index) {
    members[index] = {fields[index].name, T_OBJECT_EX,
                      offset(offsetof(Stored, bound) + fields[index].offset), 0, nullptr};
  }
  members[field_count<Bound>] = {"__dictoffset__", T_PYSSIZET, offset(offsetof(Stored, dict)),
                                 READONLY, nullptr};
  members[field_count<Bound> + 1] = {"__weaklistoffset__", T_PYSSIZET,
                                     offset(offsetof(Stored, weak_references)), READONLY, nullptr};
  std::array<PyType_Slot, 7> slots = {{
      {Py_tp_new, reinterpret_cast<void*>(Stored::make)},
      {Py_tp_dealloc, reinterpret_cast<void*>(Stored::dealloc)},
      {Py_tp_traverse, reinterpret_cast<void*>(Stored::traverse)},
      {Py_tp_clear, reinterpret_cast<void*>(Stored::clear)},
      {Py_tp_members, members.data()},
      {Py_tp_getset, dict_attribute},
      {0, nullptr},
  }};
  PyType_Spec spec = {qualified_name, sizeof(Stored), 0,
                      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots.data()};
  return Ref::checked(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

}  // namespace decision_bounds::python
