#include "python_host/state.hpp"

#include "python_host/imports.hpp"

namespace decision_bounds::python {

void State::load(PyObject* loaded) {
  module = loaded;
  globals = PyModule_GetDict(loaded);
  locks.load();
  threading = import("threading");
  round = attribute(import("builtins"), "round");
  cost_decimals = Ref(decision_bounds::cost_decimals);
  for (std::size_t index = 0; index < names.size(); ++index) {
    names[index] = interned(name_texts[index]);
  }
  for (std::size_t index = 0; index < summary_keys.size(); ++index) {
    summary_keys[index] = interned(decision_bounds::summary_keys[index]);
  }
  deadline_and_clock = Ref::checked(PyTuple_Pack(2, name(Name::deadline), name(Name::clock)));
  exc_info = Ref::checked(PyTuple_Pack(1, name(Name::exc_info)));
}

int State::traverse(visitproc visit, void* arg) const {
  Py_VISIT(threading.get());
  Py_VISIT(operation_type.get());
  Py_VISIT(give_back_type.get());
  Py_VISIT(round.get());
  return locks.traverse(visit, arg);
}

void State::remember_share(const Ref& type) {
  share_type = reinterpret_cast<PyTypeObject*>(type.get());
  _PyType_Lookup(share_type, interned("__init__").get());  // gives the type its version tag
  share_version = share_type->tp_version_tag;
}

Ref State::global(Name looked_up) const {
  Ref value = Ref::to(PyDict_GetItemWithError(globals, name(looked_up)));
  if (value.get() == nullptr) {
    if (PyErr_Occurred() == nullptr) {
      PyErr_Format(PyExc_NameError, "name '%U' is not defined", name(looked_up));
    }
    throw Raised{};
  }
  return value;
}

}  // namespace decision_bounds::python
