#pragma once

/// How deep operations may call each other through the C code of the interpreter alone: a share
/// that settles a share, a property that charges the reply that it is read of. It ends in the
/// interpreter's `RecursionError`, not in an overflow of the stack.

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// What one operation counts for. Since 3.12 the interpreter allows its C code 10,000 levels, of
/// less stack than an operation takes.
inline constexpr int levels_of_recursion = PY_VERSION_HEX >= 0x030C0000 ? 8 : 1;

/// Returns what `run` returns, or null with the error set where the recursion is too deep. `run`
/// does not throw.
template <typename Run>
PyObject* count_recursion(const Run& run) {
  int counted = 0;
  while (counted < levels_of_recursion &&
         Py_EnterRecursiveCall(" while calling an operation of a bound") == 0) {
    ++counted;
  }
  PyObject* result = counted == levels_of_recursion ? run() : nullptr;
  while (counted-- > 0) {
    Py_LeaveRecursiveCall();
  }
  return result;
}

}  // namespace decision_bounds::python
