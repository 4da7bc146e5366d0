#include "python_host/failure.hpp"

#if PY_VERSION_HEX >= 0x030D0000
// Exported for the interpreter's own extension modules, and declared in a header of its own only.
extern "C" void _PyTraceback_Add(const char* function, const char* file, int line);
#endif

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
  host_call([&] { PyErr_NormalizeException(&type, &exception, &traceback); });
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

void add_to_traceback(const char* function) {
  host_call([&] { _PyTraceback_Add(function, "<decision_bounds>", 1); });
}

Handling::Handling(const Failure& failure) {
  PyErr_GetExcInfo(&type_, &exception_, &traceback_);
  PyErr_SetExcInfo(failure.type().release(), Ref(failure.exception()).release(),
                   failure.traceback().release());
}

Handling::~Handling() {
  host_call([&] { PyErr_SetExcInfo(type_, exception_, traceback_); });
}

}  // namespace decision_bounds::python
