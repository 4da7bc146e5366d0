#pragma once

/// One reference to one object of the interpreter, and the one C++ exception of this side.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <structmember.h>
#include <utility>

#include "python_host/host_call.hpp"

namespace decision_bounds::python {

/// Thrown where the interpreter's error is set. Whoever catches it leaves the error set, or takes
/// it (failure.hpp).
struct Raised {};

/// Owns one reference, or none. A field that was deleted, or never set, is a reference to nothing;
/// numbers.hpp raises where one is used.
class Ref {
 public:
  Ref() = default;
  explicit Ref(int value) : Ref(checked(PyLong_FromLong(value))) {}
  explicit Ref(double value) : Ref(checked(PyFloat_FromDouble(value))) {}
  explicit Ref(bool value) : object_(Py_NewRef(value ? Py_True : Py_False)) {}
  Ref(const Ref& other) : object_(Py_XNewRef(other.object_)) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~Ref() {
    if (object_ != nullptr) {
      drop();
    }
  }

  /// The old object goes last: its end may run any code, which must find the new one in place.
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// Takes over a new reference that the interpreter returned; throws where it returned none.
  static Ref checked(PyObject* owned) {
    if (owned == nullptr) {
      throw Raised{};
    }
    Ref ref;
    ref.object_ = owned;
    return ref;
  }
  /// A reference of its own to what the caller holds; `borrowed` may be null.
  static Ref to(PyObject* borrowed) {
    Ref ref;
    ref.object_ = Py_XNewRef(borrowed);
    return ref;
  }
  static Ref none() { return to(Py_None); }

  PyObject* get() const { return object_; }
  PyObject* release() { return std::exchange(object_, nullptr); }

 private:
  void drop() noexcept {
    host_call([&] { Py_DECREF(object_); });
  }

  PyObject* object_ = nullptr;
};

/// Throws where a call of the interpreter answered that it failed (a negative status).
inline void check(int status) {
  if (status < 0) {
    throw Raised{};
  }
}

}  // namespace decision_bounds::python
