#include "python_host/failure.hpp"

namespace decision_bounds::python {

#if PY_VERSION_HEX >= 0x030C0000

Failure Failure::take() {
  Failure failure;
  failure.exception_ = Ref::checked(PyErr_GetRaisedException());
  return failure;
}

void Failure::restore() { PyErr_SetRaisedException(exception_.release()); }

#else

Failure Failure::take() {
  PyObject* type = nullptr;
  PyObject* exception = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &exception, &traceback);
  PyErr_NormalizeException(&type, &exception, &traceback);
  if (traceback != nullptr) {
    PyException_SetTraceback(exception, traceback);
  }
  Py_XDECREF(type);
  Py_XDECREF(traceback);
  Failure failure;
  failure.exception_ = Ref::checked(exception);
  return failure;
}

void Failure::restore() {
  PyErr_Restore(type().release(), exception_.get(), traceback().release());
  exception_.release();
}

#endif

Ref Failure::traceback() const {
  PyObject* traceback = PyException_GetTraceback(exception_.get());
  return traceback == nullptr ? Ref() : Ref::checked(traceback);
}

void Failure::become_context() {
  Failure newer = take();
  if (newer.exception_.get() != exception_.get()) {
    PyException_SetContext(newer.exception_.get(), exception_.release());
  }
  newer.restore();
}

}  // namespace decision_bounds::python
