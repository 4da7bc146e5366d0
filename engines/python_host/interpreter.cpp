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

Ref item(const Ref& dictionary, const Ref& key) {
  Ref found =
      Ref::to(shielded([&] { return PyDict_GetItemWithError(dictionary.get(), key.get()); }));
  if (found.get() == nullptr && PyErr_Occurred() != nullptr) {
    throw Raised{};
  }
  return found;
}

// `_PyType_Lookup` is the interpreter's own name for what it does at each use of a special method;
// its public functions would read the attribute, and bind a method to the type.
Ref attribute_of_type(PyTypeObject* type, const Ref& name) {
  return Ref::to(_PyType_Lookup(type, name.get()));
}

}  // namespace decision_bounds::python
