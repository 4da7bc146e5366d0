#pragma once

/// Calls out of the module: to the functions that callers handed in, and to names that the module
/// binds.

#include <array>
#include <cstddef>
#include <tuple>

#include "python_host/numbers.hpp"
#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// Calls `function` with so many arguments, before which a place is free, and returns a new
/// reference.
Ref call_vector(PyObject* function, PyObject** arguments, std::size_t count,
                PyObject* keywords = nullptr);

/// Calls the attribute `name` of the first of the arguments with the others.
Ref call_method_vector(PyObject* name, PyObject** arguments, std::size_t count);

/// Calls `function`. Raises `AttributeError` where it, or an argument, is a field that is not set.
template <typename... Arguments>
Ref call(const Ref& function, const Arguments&... arguments) {
  const Ref called = value_of(function);
  const std::array<Ref, sizeof...(arguments)> held = {value_of(arguments)...};
  return std::apply(
      [&](const auto&... each) {
        // The callee may write to the free first place: a bound method puts its object there.
        std::array<PyObject*, sizeof...(each) + 1> places = {nullptr, each.get()...};
        return call_vector(called.get(), places.data() + 1, sizeof...(each));
      },
      held);
}

/// Calls the attribute `name` of `object`, with the same rule.
template <typename... Arguments>
Ref call_method(PyObject* name, const Ref& object, const Arguments&... arguments) {
  const std::array<Ref, sizeof...(arguments) + 1> held = {value_of(object), value_of(arguments)...};
  return std::apply(
      [&](const auto&... each) {
        std::array<PyObject*, sizeof...(each)> places = {each.get()...};
        return call_method_vector(name, places.data(), places.size());
      },
      held);
}

/// The same where the name is not at hand as an object: for the ways that need not be fast.
template <typename... Arguments>
Ref call_method(const char* name, const Ref& object, const Arguments&... arguments) {
  return call_method(Ref::checked(PyUnicode_InternFromString(name)).get(), object, arguments...);
}

}  // namespace decision_bounds::python
