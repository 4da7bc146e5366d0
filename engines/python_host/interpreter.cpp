#include "python_host/interpreter.hpp"

#include <chrono>
#include <thread>

namespace decision_bounds::python {

void sleep_for_good() {
  for (;;) {
    std::this_thread::sleep_for(std::chrono::hours(1));
  }
}

void raise_unset_field() {
  PyErr_SetString(PyExc_AttributeError, "a field that the operation uses is not set");
  throw Raised{};
}

bool truth(const Ref& value) { return checked(PyObject_IsTrue, value_of(value)) != 0; }

Ref found(PyObject* object) {
  return object == nullptr && PyErr_Occurred() == nullptr ? Ref() : Ref::owned(object);
}

Ref item(PyObject* dictionary, const Ref& key) {
  return found(shielded([&] { return new_item(dictionary, key.get()); }));
}

Ref attribute_of_type(PyTypeObject* type, const Ref& name) {
  PyObject* found = new_type_attribute(type, name.get());
  return found == nullptr ? Ref() : Ref::owned(found);
}

}  // namespace decision_bounds::python
