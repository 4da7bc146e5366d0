#pragma once

/// The error that is set: taken out so that other code can run, put back, or ended.

#include <new>

#include "python_host/interpreter.hpp"

namespace decision_bounds::python {

/// An error that was taken out of the error indicator. It is put back with `restore`, unless it is
/// to end here.
class Error {
 public:
  Error() = default;
  /// Takes the error that is set, which then is no longer.
  static Error take();

  /// Sets the error again, as it was.
  void restore();

  const Ref& exception() const { return exception_; }
  Ref type() const { return type_of(exception_.get()); }
  Ref traceback() const;

 private:
  Ref exception_;
};

/// An error that waits until something is done that it must not cut off.
class Delayed {
 public:
  /// Takes the error that is set. The first that is taken is the one that is raised later.
  void take();
  /// Raises what was taken, in the place of an error that is set. Without either, returns.
  void raise();

 private:
  Error error_;
};

/// Makes an error the one that is being handled, as in an `except` block: the interpreter makes it
/// the `__context__` of what is raised meanwhile.
class Handling {
 public:
  explicit Handling(const Error& error);
  ~Handling();
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

 private:
  PyObject* type_ = nullptr;
  PyObject* exception_ = nullptr;
  PyObject* traceback_ = nullptr;
};

/// Adds the Python frame that called the operation to the traceback of the error that is set. An
/// error raised by C code alone, as by `float("much")`, has no traceback before.
void add_caller_to_traceback();

// In the functions below, and wherever else `Raised` is caught, the C++ handler is left before the
// interpreter is called. A thread that is put to sleep in that call (`shielded`) is caught in a
// handler of its own, and a forced unwind that meets a handler inside a handler ends the process.

/// Returns what the block returns; where the block fails, runs `undo`, and the error goes on.
auto on_failure(const auto& block, const auto& undo) {
  try {
    return block();
  } catch (const Raised&) {
  }
  Error error = Error::take();
  {
    const Handling handling(error);
    undo();
  }
  error.restore();
  throw Raised{};
}

/// Ends an ordinary error of the block, one derived from `Exception`, in `failed(exception)`.
void attempt(const auto& block, const auto& failed) {
  try {
    block();
    return;
  } catch (const Raised&) {
  }
  if (PyErr_ExceptionMatches(PyExc_Exception) == 0) {
    throw Raised{};
  }
  add_caller_to_traceback();
  const Error error = Error::take();
  const Handling handling(error);
  failed(error.exception());
}

/// What every C function that the interpreter calls is made of: returns what the block returns, or
/// `failed` with the interpreter's error set.
template <typename Result, typename Block>
Result entry(Result failed, const Block& block) {
  try {
    return block();
  } catch (const Raised&) {
    return failed;
  } catch (const std::bad_alloc&) {
  }
  PyErr_NoMemory();
  return failed;
}

/// As `entry`, for what operations are made of. It counts as a level of the interpreter's
/// recursion: operations may call each other through C code alone, as a share that settles a share
/// or a property that charges its own reply, and that ends in `RecursionError` instead of an
/// overflow of the stack.
template <typename Block>
PyObject* entry_of_operation(const Block& block) {
  if (Py_EnterRecursiveCall(" while calling an operation of a bound") != 0) {
    return nullptr;
  }
#if PY_VERSION_HEX >= 0x030C0000 && PY_VERSION_HEX < 0x030E0000
  // CPython 3.12 and 3.13 allow C code 10,000 levels, each of less stack than an operation takes:
  // an operation counts for eight.
  constexpr int more_levels = 7;
  PyThreadState* thread = PyThreadState_Get();
  thread->c_recursion_remaining -= more_levels;
#endif
  PyObject* result = entry(static_cast<PyObject*>(nullptr), block);
#if PY_VERSION_HEX >= 0x030C0000 && PY_VERSION_HEX < 0x030E0000
  thread->c_recursion_remaining += more_levels;
#endif
  Py_LeaveRecursiveCall();
  return result;
}

}  // namespace decision_bounds::python
