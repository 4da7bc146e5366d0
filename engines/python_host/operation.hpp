#pragma once

/// The functions and operations of the module, as the host sees them.

#include <cstddef>
#include <span>

#include "python_host/fields.hpp"
#include "python_host/instance.hpp"
#include "python_host/python.hpp"
#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// The arguments of a call in the order of the parameters, defaults filled in; borrowed from the
/// caller for the length of the call.
class Arguments {
 public:
  explicit Arguments(PyObject* const* values) : values_(values) {}

  /// The bound of the object that the operation was called on, the first argument.
  template <typename Bound>
  Bound& self() const {
    return bound_of<Bound>(values_[0]);
  }
  PyObject* self_object() const { return values_[0]; }

  template <typename Value = Ref>
  Value get(std::size_t index) const {
    return Value(Ref::to(values_[index]));
  }

 private:
  PyObject* const* values_;
};

/// What an operation does. It answers a reference, a bool, or nothing, which the host sees as None.
using Body = Ref (*)(const Python& host, const Arguments& arguments);

/// Makes the body of a function that answers nothing, a bool or a reference.
template <auto function>
Ref body(const Python& host, const Arguments& arguments) {
  using Result = decltype(function(host, arguments));
  if constexpr (std::is_void_v<Result>) {
    function(host, arguments);
    return Ref::none();
  } else {
    return Ref(function(host, arguments));
  }
}

/// Makes the type of the operations; it is not bound to any name.
Ref make_operation_type(PyObject* module);

/// A callable with this body that answers for everything else (name, parameters, defaults,
/// declared types, documentation) as `declared` does, a function of the host's language. It keeps
/// the module.
Ref make_operation(State* state, const Ref& declared, Body body);

}  // namespace decision_bounds::python
