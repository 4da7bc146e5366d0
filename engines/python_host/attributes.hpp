#pragma once

/// The fields of a bound as plain attributes of its objects, and the types of those objects.

#include <array>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "python_host/imports.hpp"
#include "python_host/instance.hpp"

/// A field from the member that stores it.
#define BOUND_FIELD(name, Bound, member) \
  Field { name, offsetof(Bound, member), kind_of<decltype(Bound::member)> }

namespace decision_bounds::python {

/// What a member of this type stores.
template <typename Member>
constexpr Field::Kind kind_of =
    std::is_same_v<Member, Number> ? Field::Kind::number : Field::Kind::object;

/// Reads a field; raises `AttributeError` where it is not set.
template <typename Bound>
PyObject* get_field(PyObject* object, void* closure) {
  const Field& field = *static_cast<const Field*>(closure);
  Instance<Bound>* self = Instance<Bound>::of(object);
  const bool is_number = field.kind == Field::Kind::number;
  if (is_number ? !self->number_in(field).is_set() : self->object_in(field) == nullptr) {
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%s'",
                 _PyType_Name(Py_TYPE(object)), field.name);
    return nullptr;
  }
  try {
    return Py_NewRef(is_number ? self->number_in(field).kept_object() : self->object_in(field));
  } catch (const Raised&) {
    return nullptr;
  }
}

/// Puts an object into a field, or nothing.
template <typename Bound>
void store(PyObject* object, const Field& field, Ref value) {
  Instance<Bound>* self = Instance<Bound>::of(object);
  if (field.kind == Field::Kind::number) {
    self->number_in(field) = Number(std::move(value));
  } else {
    self->reference_in(field) = std::move(value);
  }
}

/// Sets a field to any object, or deletes it.
template <typename Bound>
int set_field(PyObject* object, PyObject* value, void* closure) {
  if (value == nullptr) {
    PyObject* present = get_field<Bound>(object, closure);
    if (present == nullptr) {
      return -1;
    }
    Py_DECREF(present);
  }
  store<Bound>(object, *static_cast<const Field*>(closure), Ref::to(value));
  return 0;
}

/// Sets any attribute. Where a subclass declares a field again, with a default of its own, the name
/// is the subclass's, and what is set goes to the object's dictionary; the bound is to have it as
/// well.
template <typename Bound>
int set_attribute(PyObject* object, PyObject* name, PyObject* value) {
  const int status = PyObject_GenericSetAttr(object, name, value);
  if (status == 0 && !is_exact_type<Bound>(Py_TYPE(object))) {
    for (const Field& field : fields_of<Bound>()) {
      if (PyUnicode_CompareWithASCIIString(name, field.name) == 0) {
        store<Bound>(object, field, Ref::to(value));
      }
    }
  }
  return status;
}

/// The attributes of a class: its fields and `__dict__`. The type points at them.
template <typename Bound, std::size_t count>
constexpr std::array<PyGetSetDef, count + 2> attributes_of(const Field (&fields)[count]) {
  std::array<PyGetSetDef, count + 2> attributes{};
  for (std::size_t index = 0; index < count; ++index) {
    attributes[index] = {fields[index].name, get_field<Bound>, set_field<Bound>, nullptr,
                         const_cast<Field*>(&fields[index])};
  }
  attributes[count] = {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr,
                       nullptr};
  return attributes;
}

/// What `copy` and `pickle` keep of an object: its dictionary, and its fields by name.
template <typename Bound>
PyObject* get_state(PyObject* object, PyObject* /*none*/) {
  try {
    const Ref fields = Ref::checked(PyDict_New());
    for (const Field& field : fields_of<Bound>()) {
      if (PyObject* value = get_field<Bound>(object, const_cast<Field*>(&field))) {
        check(PyDict_SetItemString(fields.get(), field.name, Ref::checked(value).get()));
      } else {
        PyErr_Clear();  // not set
      }
    }
    PyObject* dict = Instance<Bound>::of(object)->dict;
    return PyTuple_Pack(2, dict == nullptr ? Py_None : dict, fields.get());
  } catch (const Raised&) {
    return nullptr;
  }
}

template <typename Bound>
inline PyMethodDef state_methods[] = {
    {"__getstate__", get_state<Bound>, METH_NOARGS, "What copy and pickle keep."},
    {nullptr, nullptr, 0, nullptr},
};

/// Makes a type whose objects store a `Bound`, none of whose fields is set at first: an object is
/// made of zeroed memory, and that is an empty reference, and a number that is not set.
/// `qualified_name` and `attributes` stay where they are: the type points at them.
template <typename Bound>
Ref make_type(PyObject* module, const char* qualified_name, PyGetSetDef* attributes) {
  using Stored = Instance<Bound>;
  PyMemberDef members[] = {
      {"__dictoffset__", T_PYSSIZET, offsetof(Stored, dict), READONLY, nullptr},
      {"__weaklistoffset__", T_PYSSIZET, offsetof(Stored, weak_references), READONLY, nullptr},
      {nullptr, 0, 0, 0, nullptr},
  };
  PyType_Slot slots[] = {
      {Py_tp_dealloc, reinterpret_cast<void*>(Stored::dealloc)},
      {Py_tp_traverse, reinterpret_cast<void*>(Stored::traverse)},
      {Py_tp_clear, reinterpret_cast<void*>(Stored::clear)},
      {Py_tp_members, members},
      {Py_tp_getset, attributes},
      {Py_tp_setattro, reinterpret_cast<void*>(set_attribute<Bound>)},
      {Py_tp_methods, state_methods<Bound>},
      {0, nullptr},
  };
  PyType_Spec definition = {qualified_name, sizeof(Stored), 0,
                            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};
  return Ref::checked(PyType_FromModuleAndSpec(module, &definition, nullptr));
}

}  // namespace decision_bounds::python
