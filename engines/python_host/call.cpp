#include "python_host/call.hpp"

namespace decision_bounds::python {

namespace {

/// Counts one level of recursion around a call into the interpreter.
template <typename Call>
Ref counted(const Call& call) {
  check(-Py_EnterRecursiveCall(" while calling out of a bound"));
  PyObject* result = host_call(call);
  Py_LeaveRecursiveCall();
  return Ref::checked(result);
}

}  // namespace

Ref call_counted(PyObject* function, PyObject** arguments, std::size_t count, PyObject* keywords) {
  return counted([&] {
    return PyObject_Vectorcall(function, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                               keywords);
  });
}

Ref call_method_counted(PyObject* name, PyObject** arguments, std::size_t count) {
  return counted([&] {
    return PyObject_VectorcallMethod(name, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                     nullptr);
  });
}

}  // namespace decision_bounds::python
