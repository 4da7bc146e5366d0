#pragma once

/// How the type of a class is made: its storage, and the descriptors that make each field of a
/// bound a plain attribute of its object. Included by the files of the classes.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <utility>

#include "python_host/error.hpp"
#include "python_host/fields.hpp"
#include "python_host/instance.hpp"
#include "python_host/interpreter.hpp"
#include "python_host/meaning.hpp"
#include "python_host/operation.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

/// A field of a bound: the name of the attribute, and the member that stores it.
template <typename Bound, typename Member>
struct Field {
  // Without a constructor, clang 14 does not find the arguments of the template.
  constexpr Field(const char* attribute, Member Bound::*stored) : name(attribute), member(stored) {}

  const char* name;
  Member Bound::*member;
};

/// The class of a bound: `type_name`, and `fields`, a tuple of them all in the order of the
/// constructor. Defined in the file of the class.
template <typename Bound>
struct ClassOf;

template <typename Bound>
inline constexpr std::size_t field_count = std::tuple_size_v<decltype(ClassOf<Bound>::fields)>;

template <typename Bound>
void for_each_field(const auto& function) {
  std::apply([&](const auto&... field) { (function(field), ...); }, ClassOf<Bound>::fields);
}

template <typename Bound>
int Instance<Bound>::traverse(PyObject* object, visitproc visit, void* arg) {
  Instance* self = of(object);
  Py_VISIT(Py_TYPE(object));
  Py_VISIT(self->dict);
  int status = 0;
  for_each_field<Bound>([&](const auto& field) {
    for (PyObject* held : objects_in(self->bound.*field.member)) {
      status = status == 0 && held != nullptr ? visit(held, arg) : status;
    }
  });
  return status;
}

template <typename Bound>
int Instance<Bound>::clear(PyObject* object) {
  Instance* self = of(object);
  Py_CLEAR(self->dict);
  for_each_field<Bound>([&](const auto& field) { self->bound.*field.member = {}; });
  return 0;
}

/// Calls a `__del__` that is set on the class itself; a subclass has seen to its own. Returns
/// whether it has revived the object.
template <typename Bound>
bool is_revived(PyObject* object) {
  if (Py_TYPE(object)->tp_finalize == nullptr || !is_exact_type<Bound>(Py_TYPE(object))) {
    return false;
  }
  PyObject_GC_Track(object);
  if (PyObject_CallFinalizerFromDealloc(object) < 0) {
    return true;
  }
  PyObject_GC_UnTrack(object);
  return false;
}

/// The trashcan ends objects that hold each other in a long chain, such as a share whose give-back
/// function is another share's `settle`, one after the other and not one inside the other.
template <typename Bound>
void Instance<Bound>::dealloc(PyObject* object) {
  PyTypeObject* type = Py_TYPE(object);
  PyObject_GC_UnTrack(object);
  Py_TRASHCAN_BEGIN(object, dealloc)
  if (!is_revived<Bound>(object)) {
    if (may_have_weak_references(of(object)->weak_references)) {
      PyObject_ClearWeakRefs(object);
    }
    clear(object);
    type->tp_free(object);
    Py_DECREF(type);
  }
  Py_TRASHCAN_END
}

/// The meaning of the field at this place, as the interpreter's C text.
template <typename Bound, std::size_t index>
inline constexpr auto documentation_of = [] {
  constexpr std::string_view meaning = meaning_of(std::get<index>(ClassOf<Bound>::fields).name);
  std::array<char, meaning.size() + 1> text{};
  std::copy(meaning.begin(), meaning.end(), text.begin());
  return text;
}();

/// Reads the field at this place; raises `AttributeError` where it is not set.
template <typename Bound, std::size_t index>
PyObject* get_field(PyObject* object, void* /*closure*/) {
  return entry(static_cast<PyObject*>(nullptr), [&] {
    const CriticalSection section(object);
    const auto& field = std::get<index>(ClassOf<Bound>::fields);
    PyObject* value = kept_object(Instance<Bound>::of(object)->bound.*field.member);
    if (value == nullptr) {
      PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%s'",
                   _PyType_Name(Py_TYPE(object)), field.name);
    }
    return Py_XNewRef(value);
  });
}

/// Sets the field at this place to any object, or deletes it.
template <typename Bound, std::size_t index>
int set_field(PyObject* object, PyObject* value, void* /*closure*/) {
  const CriticalSection section(object);
  if (value == nullptr) {
    PyObject* present = get_field<Bound, index>(object, nullptr);
    if (present == nullptr) {
      return -1;
    }
    Py_DECREF(present);
  }
  auto& member = Instance<Bound>::of(object)->bound.*std::get<index>(ClassOf<Bound>::fields).member;
  member = std::remove_cvref_t<decltype(member)>(Ref::to(value));
  return 0;
}

template <typename Bound, std::size_t... index>
constexpr auto make_descriptors(std::index_sequence<index...> /*fields*/) {
  return std::array{
      PyGetSetDef{std::get<index>(ClassOf<Bound>::fields).name, get_field<Bound, index>,
                  set_field<Bound, index>, documentation_of<Bound, index>.data(), nullptr}...,
      PyGetSetDef{"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
      PyGetSetDef{}};
}

/// The descriptors of the fields, and `__dict__`. The type points at them.
template <typename Bound>
inline constinit auto descriptors_of =
    make_descriptors<Bound>(std::make_index_sequence<field_count<Bound>>());

/// Sets any attribute. A subclass that declares a field again hides the descriptor of the field
/// behind a default or a slot; the first object that sets the field puts the descriptor back, so
/// that the bound and the attribute stay one.
template <typename Bound>
int set_attribute(PyObject* object, PyObject* name, PyObject* value) {
  PyTypeObject* type = Py_TYPE(object);
  PyTypeObject* storing = storing_type<Bound>(type);
  if (type == storing || !PyUnicode_Check(name)) {
    return PyObject_GenericSetAttr(object, name, value);
  }
  return entry(-1, [&] {
    // The look-ups may run code that gives the object another class, and lets go of this one.
    const Ref kept = as_object(type);
    const Ref key = Ref::to(name);
    const Ref own = attribute_of_type(storing, key);
    const Ref found = attribute_of_type(type, key);
    const bool is_field = own.get() != nullptr && Py_IS_TYPE(own.get(), &PyGetSetDescr_Type);
    // The first look-up may have run code that deletes what the second is for.
    const bool is_hidden = found.get() != nullptr && found.get() != own.get() &&
                           (Py_TYPE(found.get())->tp_descr_set == nullptr ||
                            Py_IS_TYPE(found.get(), &PyMemberDescr_Type));
    if (is_field && is_hidden) {
      checked(PyObject_SetAttr, as_object(type), key, own);
    }
    return checked(PyObject_GenericSetAttr, object, name, value);
  });
}

/// What `copy` and `pickle` keep of an object: its dictionary, and by name its fields and the slots
/// of a subclass.
template <typename Bound>
PyObject* get_state(PyObject* object, PyObject* /*none*/) {
  return entry(static_cast<PyObject*>(nullptr), [&] {
    const CriticalSection section(object);
    Instance<Bound>* self = Instance<Bound>::of(object);
    const Ref fields = checked(PyDict_New);
    for_each_field<Bound>([&](const auto& field) {
      if (const Ref value = Ref::to(kept_object(self->bound.*field.member));
          value.get() != nullptr) {
        checked(PyDict_SetItemString, fields, field.name, value);
      }
    });
    if (const Ref type = type_of(object); !is_exact_type<Bound>(Py_TYPE(object))) {
      const Ref slots = call_method(interned("_slotnames"), import("copyreg"), type);
      const Py_ssize_t count = checked(PySequence_Size, slots);
      for (Py_ssize_t index = 0; index < count; ++index) {
        const Ref name = checked(PySequence_GetItem, slots, index);
        if (checked(PyObject_HasAttr, object, name) != 0) {
          checked(PyObject_SetItem, fields, name, checked(PyObject_GetAttr, object, name));
        }
      }
    }
    const Ref dict = self->dict == nullptr ? Ref::none() : Ref::to(self->dict);
    return tuple_of(dict, fields).release();
  });
}

template <typename Bound>
inline PyMethodDef methods_of[] = {
    {"__getstate__", get_state<Bound>, METH_NOARGS, "What copy and pickle keep."},
    {nullptr, nullptr, 0, nullptr},
};

/// The body of a constructor that has a parameter for each field.
template <typename Bound>
Ref set_fields(const Python& /*host*/, const Arguments& arguments) {
  auto& bound = arguments.bound<Bound>();
  const CriticalSection section(arguments[0]);
  const bool is_exact = is_exact_type<Bound>(Py_TYPE(arguments[0]));
  std::size_t index = 0;
  for_each_field<Bound>([&](const auto& field) {
    auto& member = bound.*field.member;
    const Ref value = arguments.get(++index);
    if (is_exact) {
      member = std::remove_cvref_t<decltype(member)>(value);
    } else {
      checked(PyObject_SetAttrString, arguments[0], field.name, value);
    }
  });
  return Ref::none();
}

/// Makes the type whose objects store a `Bound`.
template <typename Bound>
Ref make_type(PyObject* module) {
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
    {Py_tp_getset, descriptors_of<Bound>.data()},
    {Py_tp_setattro, reinterpret_cast<void*>(set_attribute<Bound>)},
    {Py_tp_methods, methods_of<Bound>},
#if PY_VERSION_HEX >= 0x030C0000 && PY_VERSION_HEX < 0x030D0000
    // `object.__new__` of CPython 3.12 makes a `__dict__` at once, behind which it looks up methods
    // without its caches: without one, a reserve+release pair takes a sixth less.
    {Py_tp_new, reinterpret_cast<void*>(PyType_GenericNew)},
#endif
    {0, nullptr},
  };
  PyType_Spec definition = {ClassOf<Bound>::type_name, sizeof(Stored), 0,
                            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};
  return checked(PyType_FromModuleAndSpec, module, &definition, nullptr);
}

template <typename Bound>
constexpr ClassDefinition define_class(std::span<const Definition> operations) {
  return {ClassOf<Bound>::type_name, make_type<Bound>, operations};
}

}  // namespace decision_bounds::python
