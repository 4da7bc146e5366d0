#include "python_host/number.hpp"

namespace decision_bounds::python {

Number::operator Ref() const {
  if (object_.get() != nullptr || !is_known()) {
    return value_of(object_);
  }
  return is_floating() ? checked(PyFloat_FromDouble, value()) : checked(PyLong_FromDouble, value());
}

PyObject* Number::kept_object() {
  if (object_.get() == nullptr) {
    object_ = *this;
  }
  return object_.get();
}

Number operate(binaryfunc operation, const Number& left, const Number& right) {
  return checked(operation, Ref(left), Ref(right));
}

bool compare(const Number& left, const Number& right, int operation) {
  return truth(checked(PyObject_RichCompare, Ref(left), Ref(right), operation));
}

bool has_truth(const Number& value) { return truth(Ref(value)); }

double as_double(const Number& value) {
  const Ref object = value;
  const double number = shielded([&] { return PyFloat_AsDouble(object.get()); });
  if (number == -1.0 && PyErr_Occurred() != nullptr) {
    throw Raised{};
  }
  return number;
}

}  // namespace decision_bounds::python
