#pragma once

/// The error that is set, taken out so that other code can run, and put back.

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// An error that was taken. Put back with `restore`, unless it is to end here.
class Failure {
 public:
  /// Takes the error that is set, which then is no longer.
  static Failure take();

  /// Sets the error again, as it was.
  void restore();

  Ref type() const { return Ref::to(reinterpret_cast<PyObject*>(Py_TYPE(exception_.get()))); }
  const Ref& exception() const { return exception_; }
  Ref traceback() const;

 private:
  Ref exception_;
};

/// Adds a function of the module to the traceback of the error that is set, as one of the host's
/// language adds itself. An error that the interpreter's own code has raised has none before.
void add_to_traceback(const char* function);

/// Makes an error the one that is being handled, as in an `except` block: the host chains to it
/// what is raised meanwhile.
class Handling {
 public:
  explicit Handling(const Failure& failure);
  ~Handling();
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

 private:
  PyObject* type_ = nullptr;
  PyObject* exception_ = nullptr;
  PyObject* traceback_ = nullptr;
};

// In the functions below, and wherever `Raised` is caught, the handler is left before the
// interpreter is called: a thread that is put to sleep there (host_call.hpp) must not be in a
// handler already.

/// Returns what the block returns; where the block fails, runs `undo`, and the failure goes on.
auto on_failure(const auto& block, const auto& undo) {
  try {
    return block();
  } catch (const Raised&) {
  }
  Failure failure = Failure::take();
  {
    const Handling handling(failure);
    undo();
  }
  failure.restore();
  throw Raised{};
}

/// Ends an ordinary error of the block, one derived from `Exception`, in `failed(exception)`.
void attempt(const auto& block, const auto& failed) {
  try {
    block();
    return;
  } catch (const Raised&) {
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) {
      throw;
    }
  }
  add_to_traceback("_spent_since");  // the one operation that ends errors
  const Failure failure = Failure::take();
  const Handling handling(failure);
  failed(failure.exception());
}

}  // namespace decision_bounds::python
