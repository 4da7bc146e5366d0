#pragma once

/// What the interpreter's global lock gives for nothing, and what stands in its place where there
/// is none: there, from CPython 3.14 on, threads use one object at the same time.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdint>

namespace decision_bounds::python {

#if defined(Py_GIL_DISABLED) && PY_VERSION_HEX >= 0x030E0000

inline constexpr bool has_global_lock = false;

/// Keeps other threads from the fields of an object, from here to the end of the block. It is as
/// the global lock in this: it is given up where the thread blocks inside the interpreter, and had
/// again when that returns, so what was read before may have changed.
///
/// Of sections that stand inside each other only the innermost is had for certain. So a reference
/// to a field of one object is not used in the section of another: `steady` is a copy for that.
class Section {
 public:
  explicit Section(PyObject* object) : object_(object) { begin(); }
  ~Section() { end(); }
  Section(const Section&) = delete;
  Section& operator=(const Section&) = delete;

 private:
  friend class Outside;
  void begin() { PyCriticalSection_Begin(&section_, object_); }
  void end() { PyCriticalSection_End(&section_); }

  PyObject* object_;
  PyCriticalSection section_;
};

/// Gives the innermost section up, if there is one, for a block that waits for another thread. A
/// thread tries for a while before it blocks, and the other may need the section to get on.
class Outside {
 public:
  explicit Outside(Section* section) : section_(section) {
    if (section_ != nullptr) {
      section_->end();
    }
  }
  ~Outside() {
    if (section_ != nullptr) {
      section_->begin();
    }
  }
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;

 private:
  Section* section_;
};

template <typename Value>
Value steady(const Value& field) {
  return field;
}

// Below, a new reference, or null with or without an error set: what a dictionary holds under a
// key, what a type holds under a name, and the `__dict__` of an object that has one.
inline PyObject* new_item(PyObject* dictionary, PyObject* key) {
  PyObject* value = nullptr;
  PyDict_GetItemRef(dictionary, key, &value);
  return value;
}
inline PyObject* new_type_attribute(PyTypeObject* type, PyObject* name) {
  return _PyType_LookupRef(type, name);
}
inline PyObject* new_dict(PyObject* object) { return PyObject_GenericGetDict(object, nullptr); }

// What other threads may be changing, read as it is at one moment.
inline std::uint64_t version_tag_of(const PyTypeObject* type) {
  return __atomic_load_n(&type->tp_version_tag, __ATOMIC_RELAXED);
}
inline Py_ssize_t size_of(PyObject* object) {
  return __atomic_load_n(&reinterpret_cast<PyVarObject*>(object)->ob_size, __ATOMIC_RELAXED);
}

/// Spares the threads that use an object the counting of their references, for which they would
/// wait for each other. Such an object is ended by the cycle collector alone.
inline void count_no_uses_of(PyObject* object) { PyUnstable_Object_EnableDeferredRefcount(object); }

/// Whether an object that ends may have weak references, in the list that it keeps of them. Another
/// thread may be ending one.
inline bool may_have_weak_references(const PyObject* /*list*/) { return true; }

#else

inline constexpr bool has_global_lock = true;

class Section {
 public:
  explicit Section(PyObject* /*object*/) {}
};

class Outside {
 public:
  explicit Outside(Section* /*section*/) {}
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
inline void count_no_uses_of(PyObject* /*object*/) {}
inline bool may_have_weak_references(const PyObject* list) { return list != nullptr; }

#endif

}  // namespace decision_bounds::python
