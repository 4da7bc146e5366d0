#pragma once

/// The objects of the module's classes: a bound, and what every object of the host has.

#include <cstddef>
#include <new>

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// A bound's fields are references, one after the other, and nothing else.
template <typename Bound>
inline constexpr std::size_t field_count = sizeof(Bound) / sizeof(PyObject*);

template <typename Bound>
struct Instance {
  static_assert(sizeof(Ref) == sizeof(PyObject*) && sizeof(Bound) % sizeof(Ref) == 0);

  PyObject_HEAD
  Bound bound;
  PyObject* dict;  ///< Further attributes.
  PyObject* weak_references;

  static Instance* of(PyObject* object) { return reinterpret_cast<Instance*>(object); }
  PyObject** fields() { return reinterpret_cast<PyObject**>(&bound); }

  /// No field is set before the constructor has run.
  static PyObject* make(PyTypeObject* type, PyObject* /*arguments*/, PyObject* /*keywords*/) {
    PyObject* object = type->tp_alloc(type, 0);
    if (object != nullptr) {
      new (&of(object)->bound) Bound{};
    }
    return object;
  }

  static int traverse(PyObject* object, visitproc visit, void* arg) {
    Instance* self = of(object);
    Py_VISIT(Py_TYPE(object));
    Py_VISIT(self->dict);
    for (std::size_t index = 0; index < field_count<Bound>; ++index) {
      Py_VISIT(self->fields()[index]);
    }
    return 0;
  }

  static int clear(PyObject* object) {
    Instance* self = of(object);
    Py_CLEAR(self->dict);
    for (std::size_t index = 0; index < field_count<Bound>; ++index) {
      Py_CLEAR(self->fields()[index]);
    }
    return 0;
  }

  /// Nested to any depth, as by a share whose give-back function holds a share, objects are ended
  /// one after the other and not one inside the other.
  static void dealloc(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    PyObject_GC_UnTrack(object);
    Py_TRASHCAN_BEGIN(object, dealloc)
    if (of(object)->weak_references != nullptr) {
      PyObject_ClearWeakRefs(object);
    }
    clear(object);
    type->tp_free(object);
    Py_DECREF(type);
    Py_TRASHCAN_END
  }
};

/// The attribute `__dict__` of every class; the types point at it.
inline PyGetSetDef dict_attribute[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

/// Whether objects of `type`, and of no subclass of it, are instances of `Bound`. A subclass has a
/// dealloc of its own.
template <typename Bound>
bool is_exact_type(const PyTypeObject* type) {
  return type->tp_dealloc == Instance<Bound>::dealloc;
}

/// The bound in an object of exactly its class; null for any other object.
template <typename Bound>
Bound* exact_bound(const Ref& object) {
  return is_exact_type<Bound>(Py_TYPE(object.get())) ? &Instance<Bound>::of(object.get())->bound
                                                     : nullptr;
}

/// The bound in an object of its class or of a subclass; raises `TypeError` for any other object.
template <typename Bound>
Bound& bound_of(PyObject* object) {
  const PyTypeObject* type = Py_TYPE(object);
  do {
    if (is_exact_type<Bound>(type)) {
      return Instance<Bound>::of(object)->bound;
    }
    type = type->tp_base;
  } while (type != nullptr);
  PyErr_Format(PyExc_TypeError, "the operation does not belong to '%.100s' objects",
               Py_TYPE(object)->tp_name);
  throw Raised{};
}

/// The object that a bound is in.
template <typename Bound>
PyObject* object_of(const Bound& bound) {
  const char* place = reinterpret_cast<const char*>(&bound) - offsetof(Instance<Bound>, bound);
  return reinterpret_cast<PyObject*>(const_cast<char*>(place));
}

}  // namespace decision_bounds::python
