#pragma once

/// Calls into the interpreter that may run any code.

namespace decision_bounds::python {

/// Never returns.
[[noreturn]] void sleep_for_good();

/// Makes a call into the interpreter and returns what it returns.
///
/// Up to CPython 3.13 an interpreter that exits ends its daemon threads where they wait for its
/// lock, by unwinding their stacks. The destructors of this side would then drop references without
/// the lock: half of the exits with waiting calls crashed. So the thread stays asleep here instead,
/// as later interpreters have it. Nothing else is ever thrown through the interpreter.
template <typename Call>
[[gnu::always_inline]] inline auto host_call(const Call& call) {
  try {
    return call();
  } catch (...) {
    sleep_for_good();
  }
}

}  // namespace decision_bounds::python
