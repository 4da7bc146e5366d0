#pragma once

/// The objects of the module's classes: a bound, and what every object of the host has.

#include <cstddef>

#include "python_host/interpreter.hpp"

namespace decision_bounds::python {

/// An object that stores a `Bound`. It is made of zeroed memory, in which no field is set: that is
/// an empty reference, and a number that is not set. class_type.hpp defines the functions.
template <typename Bound>
struct Instance {
  PyObject_HEAD
  Bound bound;
  PyObject* dict;  ///< Further attributes.
  PyObject* weak_references;

  static Instance* of(PyObject* object) { return reinterpret_cast<Instance*>(object); }

  static int traverse(PyObject* object, visitproc visit, void* arg);
  static int clear(PyObject* object);
  static void dealloc(PyObject* object);
};

/// Whether objects of `type`, and of no subclass of it, are instances of `Bound`. A subclass has a
/// dealloc of its own.
template <typename Bound>
bool is_exact_type(const PyTypeObject* type) {
  return type->tp_dealloc == Instance<Bound>::dealloc;
}

/// The bound in an object of exactly its class; null for any other object.
template <typename Bound>
Bound* exact_bound(PyObject* object) {
  return is_exact_type<Bound>(Py_TYPE(object)) ? &Instance<Bound>::of(object)->bound : nullptr;
}

/// The class of the module that `type` is, or is derived from; null where it is neither.
template <typename Bound>
PyTypeObject* storing_type(PyTypeObject* type) {
  while (type != nullptr && !is_exact_type<Bound>(type)) {
    type = type->tp_base;
  }
  return type;
}

/// The bound in an object of its class or of a subclass; null for any other object.
template <typename Bound>
Bound* stored_bound(PyObject* object) {
  const bool is_instance = storing_type<Bound>(Py_TYPE(object)) != nullptr;
  return is_instance ? &Instance<Bound>::of(object)->bound : nullptr;
}

/// The same; raises `TypeError` for any other object.
template <typename Bound>
Bound& bound_of(PyObject* object) {
  auto* bound = stored_bound<Bound>(object);
  if (bound == nullptr) {
    PyErr_Format(PyExc_TypeError, "the operation does not belong to '%.100s' objects",
                 Py_TYPE(object)->tp_name);
    throw Raised{};
  }
  return *bound;
}

/// The object that a bound is in.
template <typename Bound>
PyObject* object_of(const Bound& bound) {
  const char* place = reinterpret_cast<const char*>(&bound) - offsetof(Instance<Bound>, bound);
  return reinterpret_cast<PyObject*>(const_cast<char*>(place));
}

}  // namespace decision_bounds::python
