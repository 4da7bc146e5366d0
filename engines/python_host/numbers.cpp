#include "python_host/numbers.hpp"

namespace decision_bounds::python {

Ref value_of(const Ref& field) {
  if (field.get() == nullptr) {
    PyErr_SetString(PyExc_AttributeError, "a field that the operation uses is not set");
    throw Raised{};
  }
  return field;
}

Number::operator Ref() const {
  switch (object_.get() != nullptr ? Kind::other : kind_) {
    case Kind::integer:
      return Ref::checked(PyLong_FromLong(integer_));
    case Kind::floating:
      return Ref(floating_);
    default:
      return value_of(object_);
  }
}

PyObject* Number::kept_object() {
  object_ = *this;
  return object_.get();
}

Number operate(binaryfunc operation, const Ref& left, const Ref& right) {
  return Ref::checked(host_call([&] { return operation(left.get(), right.get()); }));
}

bool compare(const Ref& left, const Ref& right, int operation) {
  const Ref first = value_of(left);
  const Ref second = value_of(right);
  return truth(Ref::checked(
      host_call([&] { return PyObject_RichCompare(first.get(), second.get(), operation); })));
}

bool truth(const Ref& value) {
  const Ref asked = value_of(value);
  const int answer = host_call([&] { return PyObject_IsTrue(asked.get()); });
  check(answer);
  return answer != 0;
}

double as_double(const Ref& value) {
  const double number = host_call([&] { return PyFloat_AsDouble(value.get()); });
  if (number == -1.0 && PyErr_Occurred() != nullptr) {
    throw Raised{};
  }
  return number;
}

}  // namespace decision_bounds::python
