#include "python_host/state.hpp"

#include <cstddef>

#include "python_host/operation.hpp"

namespace decision_bounds::python {

State::State(PyObject* loaded)
    : module(loaded),
      globals(Ref::to(PyModule_GetDict(loaded))),
      empty_summary(checked(PyDict_New)),
      operation_type(make_operation_type(loaded)) {
  for (std::size_t entry = 0; entry < summary_keys.size(); ++entry) {
    summary_keys[entry] = interned(decision_bounds::summary_keys[entry]);
    checked(PyDict_SetItem, empty_summary, summary_keys[entry], Ref::none());
  }
}

int State::traverse(visitproc visit, void* arg) const {
  Py_VISIT(globals.get());
  Py_VISIT(threading.get());
  Py_VISIT(condition_type.get());
  Py_VISIT(round.get());
  Py_VISIT(operation_type.get());
  Py_VISIT(held_type.get());
  Py_VISIT(share_type.get());
  return locks.traverse(visit, arg);
}

void State::remember_surface() {
  held_type = global("_Held");
  const Ref make_budget = attribute(global("RunBudget"), "__init__");
  const Ref defaults = attribute(make_budget, "__defaults__");
  has_default_factory = checked(PySequence_GetItem, defaults, Py_ssize_t{-1});
  share_type = global(names.share);
  PyTypeObject* type = as_type(share_type);
  attribute_of_type(type, interned("__init__"));  // gives the type a version, on CPython 3.13
  share_version = class_version_of(type);
}

Ref State::global(const Ref& name) const {
  Ref value = item(globals.get(), name);
  if (value.get() == nullptr) {
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.get());
    throw Raised{};
  }
  return value;
}

}  // namespace decision_bounds::python
