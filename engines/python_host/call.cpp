#include "python_host/call.hpp"

namespace decision_bounds::python {

Ref call_vector(PyObject* function, PyObject** arguments, std::size_t count, PyObject* keywords) {
  return Ref::checked(host_call([&] {
    return PyObject_Vectorcall(function, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                               keywords);
  }));
}

Ref call_method_vector(PyObject* name, PyObject** arguments, std::size_t count) {
  return Ref::checked(host_call([&] {
    return PyObject_VectorcallMethod(name, arguments, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                     nullptr);
  }));
}

}  // namespace decision_bounds::python
