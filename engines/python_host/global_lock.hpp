#pragma once

/// What stands in the place of the interpreter's global lock where there is none: there, from
/// CPython 3.14 on, threads use one object at the same time.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdint>

namespace decision_bounds::python {

#if defined(Py_GIL_DISABLED) && PY_VERSION_HEX >= 0x030E0000

inline constexpr bool has_global_lock = false;

/// Keeps other threads from the fields of an object, from here to the end of the block. As the
/// global lock, it is given up where the thread blocks inside the interpreter, and taken again
/// before that returns, so what was read before may have changed. Unlike that, it is not given up
/// from time to time: code that runs in it and never blocks keeps the others waiting.
///
/// Of nested sections only the innermost is sure to be held. So a reference to a field of one
/// object is not used in the section of another: `steady` is a copy for that.
class CriticalSection {
 public:
  explicit CriticalSection(PyObject* object) : object_(object) { begin(); }
  ~CriticalSection() { end(); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

 private:
  friend class Suspension;
  void begin() { PyCriticalSection_Begin(&section_, object_); }
  void end() { PyCriticalSection_End(&section_); }

  PyObject* object_;
  PyCriticalSection section_;
};

/// Gives up the innermost section, where it is not null, to the end of a block that waits for
/// another thread. The interpreter itself does so when the thread blocks, after it has spun for a
/// while; the other thread may need the section to get on.
class Suspension {
 public:
  explicit Suspension(CriticalSection* section) : section_(section) {
    if (section_ != nullptr) {
      section_->end();
    }
  }
  ~Suspension() {
    if (section_ != nullptr) {
      section_->begin();
    }
  }
  Suspension(const Suspension&) = delete;
  Suspension& operator=(const Suspension&) = delete;

 private:
  CriticalSection* section_;
};

template <typename Value>
Value steady(const Value& field) {
  return field;
}

// Each returns a new reference, or null with or without an error set: what a dictionary holds under
// a key, what a type holds under a name, and the `__dict__` of an object that has one.
inline PyObject* new_item(PyObject* dictionary, PyObject* key) {
  PyObject* value = nullptr;
  PyDict_GetItemRef(dictionary, key, &value);
  return value;
}
inline PyObject* new_type_attribute(PyTypeObject* type, PyObject* name) {
  return _PyType_LookupRef(type, name);
}
inline PyObject* new_dict(PyObject* object) { return PyObject_GenericGetDict(object, nullptr); }

// Atomic reads of what other threads may be writing.
inline std::uint64_t version_tag_of(const PyTypeObject* type) {
  return __atomic_load_n(&type->tp_version_tag, __ATOMIC_RELAXED);
}
inline Py_ssize_t size_of(PyObject* object) {
  return __atomic_load_n(&reinterpret_cast<PyVarObject*>(object)->ob_size, __ATOMIC_RELAXED);
}

/// Lets threads use an object from their stacks without counting references to it, for which they
/// would wait for each other. Only the cycle collector ends such an object.
inline void defer_reference_counting(PyObject* object) {
  PyUnstable_Object_EnableDeferredRefcount(object);
}

/// Whether an object that ends may have weak references, in the list that it keeps of them. Another
/// thread may be ending one.
inline bool may_have_weak_references(const PyObject* /*list*/) { return true; }

#else

inline constexpr bool has_global_lock = true;

class CriticalSection {
 public:
  explicit CriticalSection(PyObject* /*object*/) {}
};

class Suspension {
 public:
  explicit Suspension(CriticalSection* /*section*/) {}
};

template <typename Value>
const Value& steady(const Value& field) {
  return field;
}

inline PyObject* new_item(PyObject* dictionary, PyObject* key) {
  return Py_XNewRef(PyDict_GetItemWithError(dictionary, key));
}
inline PyObject* new_type_attribute(PyTypeObject* type, PyObject* name) {
  return Py_XNewRef(_PyType_Lookup(type, name));
}
inline PyObject* new_dict(PyObject* object) {
  PyObject** place = _PyObject_GetDictPtr(object);
  return place == nullptr ? nullptr : Py_XNewRef(*place);
}
inline std::uint64_t version_tag_of(const PyTypeObject* type) { return type->tp_version_tag; }
inline Py_ssize_t size_of(PyObject* object) { return Py_SIZE(object); }
inline void defer_reference_counting(PyObject* /*object*/) {}
inline bool may_have_weak_references(const PyObject* list) { return list != nullptr; }

#endif

}  // namespace decision_bounds::python
