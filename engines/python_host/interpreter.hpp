#pragma once

/// References to the interpreter's objects, and calls into the interpreter.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <structmember.h>
#include <type_traits>
#include <utility>

#include "python_host/global_lock.hpp"

namespace decision_bounds::python {

/// Thrown where the interpreter's error indicator is set. Whoever catches it leaves the error set,
/// or takes it (error.hpp).
struct Raised {};

/// Never returns.
[[noreturn]] void sleep_for_good();

/// Makes a call into the interpreter that may run any code, and returns what it returns.
///
/// Up to CPython 3.13 an interpreter that exits ends its daemon threads where they wait for the
/// global lock, by a forced unwind of their stacks. Destructors would then drop references without
/// that lock: half of the exits with waiting calls crashed. So the thread is put to sleep here
/// instead, as later interpreters do it. Nothing else is ever thrown through the interpreter.
template <typename Call>
[[gnu::always_inline]] inline auto shielded(const Call& call) {
  try {
    return call();
  } catch (...) {
    sleep_for_good();
  }
}

/// Owns one reference, or none. A field that was deleted, or never set, is a reference to nothing;
/// `value_of` raises where one is used.
class Ref {
 public:
  Ref() = default;
  explicit Ref(bool value) : object_(Py_NewRef(value ? Py_True : Py_False)) {}
  Ref(const Ref& other) : object_(Py_XNewRef(other.object_)) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  // Always inline, also where an error is unwound: a reference whose address is never taken can
  // stay in a register.
  [[gnu::always_inline]] ~Ref() {
    if (object_ != nullptr) {
      drop(object_);
    }
  }

  /// The old object goes last: its end may run any code, which must find the new one in place.
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// Takes over a new reference that the interpreter returned; throws where it returned none.
  static Ref owned(PyObject* object) {
    if (object == nullptr) {
      throw Raised{};
    }
    Ref ref;
    ref.object_ = object;
    return ref;
  }
  /// A reference of its own to what the caller holds; `borrowed` may be null.
  static Ref to(PyObject* borrowed) {
    Ref ref;
    ref.object_ = Py_XNewRef(borrowed);
    return ref;
  }
  /// A borrowed reference, which is not counted: the caller holds the object until `release`.
  static Ref borrowed(PyObject* object) {
    Ref ref;
    ref.object_ = object;
    return ref;
  }
  static Ref none() { return to(Py_None); }

  PyObject* get() const { return object_; }
  PyObject* release() { return std::exchange(object_, nullptr); }

 private:
  static void drop(PyObject* object) noexcept {
    shielded([&] { Py_DECREF(object); });
  }

  PyObject* object_ = nullptr;
};

inline PyObject* raw(const Ref& ref) { return ref.get(); }
template <typename Value>
requires(!std::derived_from<Value, Ref>) const Value& raw(const Value& value) { return value; }

/// Calls a function of the interpreter: `checked(PyNumber_Float, answer)`. One that returns a new
/// reference gives a `Ref`; one that returns a number gives that number, which is not negative.
/// Throws where the function says, by null or a negative number, that it has set an error.
template <typename Result, typename... Parameters, typename... Arguments>
[[gnu::always_inline]] inline auto checked(Result (*function)(Parameters...),
                                           const Arguments&... arguments) {
  const Result result = shielded([&] { return function(raw(arguments)...); });
  if constexpr (std::is_same_v<Result, PyObject*>) {
    return Ref::owned(result);
  } else {
    if (result < 0) {
      throw Raised{};
    }
    return result;
  }
}

/// A reference of one's own to what a field holds: code that an operator or a call runs may rebind
/// the field meanwhile. Raises `AttributeError` where the field is not set.
[[noreturn]] void raise_unset_field();
inline Ref value_of(const Ref& field) {
  if (field.get() == nullptr) {
    raise_unset_field();
  }
  return field;
}

/// The host's `bool(value)`.
bool truth(const Ref& value);

/// The host's `left != right`, of two texts. A text is equal to itself.
inline bool operator!=(const Ref& left, const Ref& right) {
  const bool same_text =
      left.get() == right.get() && left.get() != nullptr && PyUnicode_CheckExact(left.get());
  return !same_text && truth(checked(PyObject_RichCompare, value_of(left), value_of(right), Py_NE));
}

inline Ref interned(const char* text) { return checked(PyUnicode_InternFromString, text); }
inline Ref attribute(const Ref& object, const Ref& name) {
  return checked(PyObject_GetAttr, object, name);
}
inline Ref attribute(const Ref& object, const char* name) {
  return checked(PyObject_GetAttrString, object, name);
}
inline Ref import(const char* module) { return checked(PyImport_ImportModule, module); }

inline PyTypeObject* as_type(const Ref& type) {
  return reinterpret_cast<PyTypeObject*>(type.get());
}
inline Ref as_object(PyTypeObject* type) { return Ref::to(reinterpret_cast<PyObject*>(type)); }
inline Ref type_of(PyObject* object) { return as_object(Py_TYPE(object)); }

#if PY_VERSION_HEX < 0x030D0000
/// The version tag of a dictionary: every state of every dictionary has one of its own.
/// CPython 3.12 keeps it up to date, but has deprecated its name.
inline std::uint64_t dict_version_of(PyObject* dictionary) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  return reinterpret_cast<PyDictObject*>(dictionary)->ma_version_tag;
#pragma GCC diagnostic pop
}
#endif

/// A number of a class derived from nothing but `object`: it changes whenever something is set on
/// the class, and does not come back. 0 is the number of many states.
inline std::uint64_t class_version_of(PyTypeObject* type) {
#if PY_VERSION_HEX < 0x030D0000
  // Not the version tag of the type: from `sys._clear_type_cache()` on, CPython 3.10 gives out the
  // same tags again.
  return dict_version_of(type->tp_dict);
#else
  return version_tag_of(type);
#endif
}

/// What a look-up returned: a new reference, or nothing where it is null and no error is set.
Ref found(PyObject* object);

/// What a dictionary holds under a key, or nothing. The look-up may run code, since a key of the
/// dictionary may be an object with an `==` of its own: the caller sees to it that the dictionary
/// stays.
Ref item(PyObject* dictionary, const Ref& key);

/// The attribute of a type as its dictionaries hold it, or nothing: what the interpreter looks up
/// where it uses a special method of an object.
Ref attribute_of_type(PyTypeObject* type, const Ref& name);

/// A tuple of these.
template <std::same_as<Ref>... Items>
Ref tuple_of(const Items&... items) {
  Ref tuple = checked(PyTuple_New, static_cast<Py_ssize_t>(sizeof...(items)));
  [[maybe_unused]] Py_ssize_t index = 0;
  (PyTuple_SET_ITEM(tuple.get(), index++, Py_NewRef(items.get())), ...);
  return tuple;
}

/// Calls `function` with the arguments, the last of them by the names in the tuple `keywords`.
template <std::same_as<Ref>... Arguments>
Ref call_by_name(const Ref& function, const Ref& keywords, const Arguments&... arguments) {
  // The callee may write to the place before the first argument: a bound method puts its object
  // there.
  PyObject* places[] = {nullptr, arguments.get()...};
  const auto named =
      static_cast<std::size_t>(keywords.get() == nullptr ? 0 : PyTuple_GET_SIZE(keywords.get()));
  return checked(PyObject_Vectorcall, function, static_cast<PyObject**>(places) + 1,
                 (sizeof...(arguments) - named) | PY_VECTORCALL_ARGUMENTS_OFFSET, keywords);
}

/// Calls `function`. Raises `AttributeError` where it, or an argument, is a field that is not set.
template <typename... Arguments>
Ref call(const Ref& function, const Arguments&... arguments) {
  return call_by_name(value_of(function), Ref(), value_of(arguments)...);
}

template <std::same_as<Ref>... Places>
Ref call_method_of(const Ref& name, const Places&... object_and_arguments) {
  PyObject* places[] = {object_and_arguments.get()...};
  return checked(PyObject_VectorcallMethod, name, static_cast<PyObject**>(places),
                 sizeof...(object_and_arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
}

/// Calls the attribute `name` of `object`, with the same rule.
template <typename... Arguments>
Ref call_method(const Ref& name, const Ref& object, const Arguments&... arguments) {
  return call_method_of(name, value_of(object), value_of(arguments)...);
}

}  // namespace decision_bounds::python
