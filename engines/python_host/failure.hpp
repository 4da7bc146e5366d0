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

  /// Makes this error the context of the one that is set now, as the interpreter does when an
  /// error is raised while another is handled.
  void become_context();

  Ref type() const { return Ref::to(reinterpret_cast<PyObject*>(Py_TYPE(exception_.get()))); }
  const Ref& exception() const { return exception_; }
  Ref traceback() const;

 private:
  Ref exception_;
};

/// Returns what the block returns; where the block fails, runs `undo`, and the failure goes on.
auto on_failure(const auto& block, const auto& undo) {
  try {
    return block();
  } catch (const Raised&) {
    Failure failure = Failure::take();
    try {
      undo();
    } catch (const Raised&) {
      failure.become_context();
      throw;
    }
    failure.restore();
    throw;
  }
}

/// Ends an ordinary error of the block, one derived from `Exception`, in `failed(exception)`.
void attempt(const auto& block, const auto& failed) {
  try {
    block();
  } catch (const Raised&) {
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) {
      throw;
    }
    failed(Failure::take().exception());
  }
}

}  // namespace decision_bounds::python
