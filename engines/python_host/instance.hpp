#pragma once

/// The objects of the module's classes: a bound, and what every object of the host has.

#include <cstddef>
#include <span>

#include "python_host/numbers.hpp"
#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// A field of a bound, and the attribute that it is.
struct Field {
  enum class Kind { object, number };

  const char* name;
  std::size_t offset;  ///< In the bound.
  Kind kind = Kind::object;
};

/// The fields of a bound, all of them, in the order of the constructor. Defined beside its class.
template <typename Bound>
std::span<const Field> fields_of();

template <typename Bound>
struct Instance {
  PyObject_HEAD
  Bound bound;
  PyObject* dict;  ///< Further attributes.
  PyObject* weak_references;

  static Instance* of(PyObject* object) { return reinterpret_cast<Instance*>(object); }

  void* place_of(const Field& field) { return reinterpret_cast<char*>(&bound) + field.offset; }
  Number& number_in(const Field& field) { return *static_cast<Number*>(place_of(field)); }
  Ref& reference_in(const Field& field) { return *static_cast<Ref*>(place_of(field)); }
  /// The object that a field holds, if any: the first thing in a number as in a reference.
  PyObject*& object_in(const Field& field) { return *static_cast<PyObject**>(place_of(field)); }

  static int traverse(PyObject* object, visitproc visit, void* arg) {
    Instance* self = of(object);
    Py_VISIT(Py_TYPE(object));
    Py_VISIT(self->dict);
    for (const Field& field : fields_of<Bound>()) {
      Py_VISIT(self->object_in(field));
    }
    return 0;
  }

  static int clear(PyObject* object) {
    Instance* self = of(object);
    Py_CLEAR(self->dict);
    for (const Field& field : fields_of<Bound>()) {
      Py_CLEAR(self->object_in(field));
    }
    return 0;
  }

  /// Nested to any depth, as by a share whose give-back function holds a share, objects are ended
  /// one after the other and not one inside the other.
  static void dealloc(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    // A `__del__` set on the class itself; a subclass has seen to its own.
    if (type->tp_finalize != nullptr && type->tp_dealloc == dealloc &&
        PyObject_CallFinalizerFromDealloc(object) < 0) {
      return;  // revived
    }
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

/// The bound in an object of its class or of a subclass; null for any other object.
template <typename Bound>
Bound* stored_bound(PyObject* object) {
  const PyTypeObject* type = Py_TYPE(object);
  do {
    if (is_exact_type<Bound>(type)) {
      return &Instance<Bound>::of(object)->bound;
    }
    type = type->tp_base;
  } while (type != nullptr);
  return nullptr;
}

/// The same; raises `TypeError` for any other object.
template <typename Bound>
Bound& bound_of(PyObject* object) {
  if (auto* bound = stored_bound<Bound>(object)) {
    return *bound;
  }
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
