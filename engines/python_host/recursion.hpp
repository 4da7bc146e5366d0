#pragma once

/// How deep operations may call each other through the C code of the interpreter alone: a share
/// that settles a share, a property that charges the reply that it is read of. It ends in the
/// interpreter's `RecursionError`, not in an overflow of the stack.

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// Takes so many levels more of the thread's than the one that is counted for every call. CPython
/// 3.12 and 3.13 allow C code 10,000 levels, of less stack than an operation takes: there an
/// operation counts for eight.
inline void take_more_levels([[maybe_unused]] int sign) {
#if PY_VERSION_HEX >= 0x030C0000 && PY_VERSION_HEX < 0x030E0000
  PyThreadState_Get()->c_recursion_remaining -= sign * 7;
#endif
}

/// Returns what `run` returns, or null with the error set where the recursion is too deep. `run`
/// does not throw.
template <typename Run>
PyObject* count_recursion(const Run& run) {
  if (Py_EnterRecursiveCall(" while calling an operation of a bound") != 0) {
    return nullptr;
  }
  take_more_levels(1);
  PyObject* result = run();
  take_more_levels(-1);
  Py_LeaveRecursiveCall();
  return result;
}

}  // namespace decision_bounds::python
