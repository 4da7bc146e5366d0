#include "python_host/numbers.hpp"

namespace decision_bounds::python {

Ref value_of(const Ref& field) {
  if (field.get() == nullptr) {
    PyErr_SetString(PyExc_AttributeError, "a field that the operation uses is not set");
    throw Raised{};
  }
  return field;
}

Ref operate(binaryfunc operation, const Ref& left, const Ref& right) {
  const Ref first = value_of(left);
  const Ref second = value_of(right);
  return Ref::checked(host_call([&] { return operation(first.get(), second.get()); }));
}

bool compare(const Ref& left, const Ref& right, int operation) {
  const Ref first = value_of(left);
  const Ref second = value_of(right);
  const Ref answer = Ref::checked(
      host_call([&] { return PyObject_RichCompare(first.get(), second.get(), operation); }));
  return truth(answer);
}

bool truth_of_any(const Ref& value) {
  const Ref asked = value_of(value);
  const int answer = host_call([&] { return PyObject_IsTrue(asked.get()); });
  check(answer);
  return answer != 0;
}

double as_double(const Ref& value) {
  const Ref asked = value_of(value);
  const double number = host_call([&] { return PyFloat_AsDouble(asked.get()); });
  if (number == -1.0 && PyErr_Occurred() != nullptr) {
    throw Raised{};
  }
  return number;
}

}  // namespace decision_bounds::python
