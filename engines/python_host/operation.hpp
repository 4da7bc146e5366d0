#pragma once

/// The functions and operations of the module, as the host sees them.

#include <concepts>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "python_host/fields.hpp"
#include "python_host/instance.hpp"
#include "python_host/interpreter.hpp"
#include "python_host/python.hpp"

namespace decision_bounds::python {

/// The arguments of a call in the order of the parameters, defaults filled in. All are borrowed,
/// the object that an operation is called on as well: the caller holds them, as the
/// interpreter's calling convention has it.
class Arguments {
 public:
  explicit Arguments(PyObject* const* values) : values_(values) {}

  /// An argument, borrowed. The first is the object that the operation was called on.
  PyObject* operator[](std::size_t index) const { return values_[index]; }
  /// The bound in the first; raises `TypeError` where it has none.
  template <typename Bound>
  Bound& bound() const {
    return bound_of<Bound>(values_[0]);
  }
  template <typename Value = Ref>
  Value get(std::size_t index) const {
    return Value(Ref::to(values_[index]));
  }

 private:
  PyObject* const* values_;
};

/// What an operation does.
using Body = Ref (*)(const Python& host, const Arguments& arguments);

/// The body of the function that the surface declares under this name.
struct Definition {
  const char* name;
  Body body;
};

/// What a body returns of what an operation returned: nothing is None.
template <typename Operation>
Ref returned(const Operation& operation) {
  if constexpr (std::is_void_v<decltype(operation())>) {
    operation();
    return Ref::none();
  } else {
    return Ref(operation());
  }
}

/// An argument that is borrowed: the caller holds it for the length of the call. Threads that pass
/// the same object, a clock for instance, would wait for each other to count references to it.
template <std::derived_from<Ref> Value>
class Borrowed {
 public:
  explicit Borrowed(PyObject* object) : value_(Ref::borrowed(object)) {}
  ~Borrowed() { value_.release(); }
  Borrowed(const Borrowed&) = delete;
  Borrowed& operator=(const Borrowed&) = delete;

  operator const Value&() const { return value_; }

 private:
  Value value_;
};

/// The argument for a parameter of a bound's operation: the host, or what the call passed.
template <typename Parameter>
decltype(auto) argument_for(const Python& host, const Arguments& arguments, std::size_t index) {
  using Value = std::remove_cvref_t<Parameter>;
  if constexpr (std::is_same_v<Value, Python>) {
    return (host);
  } else if constexpr (std::derived_from<Value, Ref>) {
    return Borrowed<Value>(arguments[index]);
  } else {
    return arguments.get<Value>(index);
  }
}

template <auto operation, typename Bound, typename... Parameters>
Ref call_operation(const Python& state_host, const Arguments& arguments) {
  auto& bound = arguments.bound<Bound>();
  CriticalSection section(arguments[0]);
  const Python host{state_host.state, nullptr, &section};
  return [&]<std::size_t... index>(std::index_sequence<index...> /*parameters*/) {
    return returned([&] {
      return (bound.*operation)(argument_for<Parameters>(host, arguments, index + 1)...);
    });
  }
  (std::index_sequence_for<Parameters...>());
}

template <auto operation, typename Result, typename Bound, typename... Parameters>
constexpr Body body_of(Result (Bound::* /*operation*/)(Parameters...)) {
  return call_operation<operation, Bound, Parameters...>;
}
template <auto operation, typename Result, typename Bound, typename... Parameters>
constexpr Body body_of(Result (Bound::* /*operation*/)(Parameters...) const) {
  return call_operation<operation, Bound, Parameters...>;
}

/// The body that calls an operation of a bound with the arguments, in order, and the host.
template <auto operation>
inline constexpr Body method = body_of<operation>(operation);

/// Makes the type of the operations; it is not bound to any name.
Ref make_operation_type(PyObject* module);

/// A callable with this body. Its name, parameters, defaults, declared types and documentation are
/// those of `declared`, a function of the host's language. It keeps the module.
Ref make_operation(State* state, const Ref& declared, Body body);

/// Whether the object (or null) is an operation with this body.
bool is_operation(PyObject* object, Body body);

}  // namespace decision_bounds::python
