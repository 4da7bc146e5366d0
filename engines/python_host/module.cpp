/// The module `decision_bounds`: its definition, and what loading it does.

#include "decision_bounds/wait.hpp"
#include "python_host/error.hpp"
#include "python_host/interpreter.hpp"
#include "python_host/state.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

/// Where the module keeps the pointer to its state; null before it is loaded.
State*& state_place(PyObject* module) { return *static_cast<State**>(PyModule_GetState(module)); }

void bind(PyObject* module, const char* name, const Ref& value) {
  checked(PyObject_SetAttrString, module, name, value);
}

int execute(PyObject* module) {
  return entry(-1, [&] {
    auto* state = new State(module);
    state_place(module) = state;
    const Ref name = attribute(Ref::to(module), "__name__");
    bind(module, "logger", call_method(interned("getLogger"), import("logging"), name));
    bind(module, "_POLL_S", checked(PyFloat_FromDouble, poll_interval_s));
    bind_surface(state);
    state->remember_surface();
    return 0;
  });
}

int traverse(PyObject* module, visitproc visit, void* arg) {
  const State* state = PyModule_GetState(module) == nullptr ? nullptr : state_place(module);
  return state == nullptr ? 0 : state->traverse(visit, arg);
}

// There is no clear: an operation keeps the module, and needs the state for as long as anybody can
// call it. Of what the state holds, only types of the module lead back to the module, and these are
// cleared.
void free(void* module) {
  auto* object = static_cast<PyObject*>(module);
  if (PyModule_GetState(object) != nullptr) {
    delete state_place(object);
  }
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
#if PY_VERSION_HEX >= 0x030C0000
    // Interpreters with a lock each share nothing but what this library never writes: no object is
    // kept outside of a module's state.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
#if PY_VERSION_HEX >= 0x030E0000
    // Not before: without the lock, CPython 3.13 has hung at exit.
    {Py_mod_gil, Py_MOD_GIL_NOT_USED},
#endif
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "decision_bounds",
    nullptr,        // The text of the surface begins with the module's documentation.
    sizeof(void*),  // to the state
    nullptr,
    slots,
    traverse,
    nullptr,
    free,
};

}  // namespace

}  // namespace decision_bounds::python

PyMODINIT_FUNC PyInit_decision_bounds() {
  return PyModuleDef_Init(&decision_bounds::python::definition);
}
