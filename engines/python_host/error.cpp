#include "python_host/error.hpp"

namespace decision_bounds::python {

#if PY_VERSION_HEX >= 0x030C0000

Error Error::take() {
  Error error;
  error.exception_ = Ref::owned(PyErr_GetRaisedException());
  return error;
}

void Error::restore() { PyErr_SetRaisedException(exception_.release()); }

#else

Error Error::take() {
  PyObject* type = nullptr;
  PyObject* exception = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &exception, &traceback);
  shielded([&] { PyErr_NormalizeException(&type, &exception, &traceback); });
  if (traceback != nullptr) {
    PyException_SetTraceback(exception, traceback);
  }
  Py_XDECREF(type);
  Py_XDECREF(traceback);
  Error error;
  error.exception_ = Ref::owned(exception);
  return error;
}

void Error::restore() {
  PyErr_Restore(type().release(), exception_.get(), traceback().release());
  exception_.release();
}

#endif

Ref Error::traceback() const {
  PyObject* traceback = PyException_GetTraceback(exception_.get());
  return traceback == nullptr ? Ref() : Ref::owned(traceback);
}

void Delayed::take() {
  Error error = Error::take();
  if (error_.exception().get() == nullptr) {
    error_ = std::move(error);
  }
}

void Delayed::raise() {
  const bool failed = PyErr_Occurred() != nullptr;
  if (error_.exception().get() != nullptr) {
    if (failed) {
      PyException_SetContext(error_.exception().get(), Ref(Error::take().exception()).release());
    }
    error_.restore();
    throw Raised{};
  }
  if (failed) {
    throw Raised{};
  }
}

void add_caller_to_traceback() {
  // Where there is no memory for the frame's object, asking for it clears the error that is set.
  Error error = Error::take();
  PyFrameObject* const caller = PyEval_GetFrame();
  error.restore();
  if (caller != nullptr) {
    shielded([&] { PyTraceBack_Here(caller); });
  }
}

// `PyErr_GetExcInfo` would answer, in a generator that handles nothing, what its caller handles,
// and the generator would go on to handle that.
Handling::Handling(const Error& error) {
  const _PyErr_StackItem& running = *PyThreadState_Get()->exc_info;
#if PY_VERSION_HEX < 0x030B0000
  type_ = Py_XNewRef(running.exc_type);
  traceback_ = Py_XNewRef(running.exc_traceback);
#endif
  exception_ = Py_XNewRef(running.exc_value);
  PyErr_SetExcInfo(error.type().release(), Ref(error.exception()).release(),
                   error.traceback().release());
}

Handling::~Handling() {
  shielded([&] { PyErr_SetExcInfo(type_, exception_, traceback_); });
}

}  // namespace decision_bounds::python
