/// The module `decision_bounds`: its definition, and what loading it does, in order.

#include <new>

#include "decision_bounds/wait.hpp"
#include "python_host/call.hpp"
#include "python_host/failure.hpp"
#include "python_host/give_back.hpp"
#include "python_host/imports.hpp"
#include "python_host/operation.hpp"
#include "python_host/ref.hpp"
#include "python_host/state.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

State* state_of(PyObject* module) { return static_cast<State*>(PyModule_GetState(module)); }

void bind(PyObject* module, const char* name, const Ref& value) {
  check(PyObject_SetAttrString(module, name, value.get()));
}

/// Names that the declarations use while the module is loaded, and that it does not keep.
class LentNames {
 public:
  explicit LentNames(PyObject* module) : module_(module) {
    bind(module_, "field", attribute(import("dataclasses"), "field"));
    bind(module_, "Protocol", attribute(import("typing"), "Protocol"));
  }
  void take_back() {
    check(PyObject_DelAttrString(module_, "field"));
    check(PyObject_DelAttrString(module_, "Protocol"));
  }

 private:
  PyObject* module_;
};

/// Sees to it that the host's record facility finds this module under its name while it is loaded,
/// also where it is loaded without being registered, or beside another copy.
class Registration {
 public:
  explicit Registration(PyObject* module) {
    name_ = attribute(Ref::to(module), "__name__");
    previous_ = Ref::to(PyDict_GetItemWithError(PyImport_GetModuleDict(), name_.get()));
    check(PyDict_SetItem(PyImport_GetModuleDict(), name_.get(), module));
  }
  void undo() {
    if (previous_.get() != nullptr) {
      check(PyDict_SetItem(PyImport_GetModuleDict(), name_.get(), previous_.get()));
    } else {
      check(PyDict_DelItem(PyImport_GetModuleDict(), name_.get()));
    }
  }

 private:
  Ref name_;
  Ref previous_;
};

void bind_names(State* state) {
  PyObject* module = state->module;
  // What the declared types name.
  bind(module, "threading", state->threading);
  bind(module, "Callable", attribute(import("collections.abc"), "Callable"));
  bind(module, "Any", attribute(import("typing"), "Any"));

  const Ref name = attribute(Ref::to(module), "__name__");
  bind(module, "logger", call_method("getLogger", import("logging"), name));
  bind(module, "_POLL_S", Ref(poll_interval_s));
  bind_errors(state);
  bind_paid_reply(state);
  bind_stock_functions(state);
  bind_share(state);
  bind_held(state);
  bind_wait(state);
  bind_charges(state);
  bind_request_rates(state);
  bind_run_budget(state);
  bind_daily_spend(state);
}

int execute(PyObject* module) {
  try {
    auto* state = new (state_of(module)) State{};
    state->load(module);
    state->operation_type = make_operation_type(module);
    state->give_back_type = make_give_back_type(module);
    Registration registration(module);
    on_failure(
        [&] {
          LentNames lent(module);
          bind_names(state);
          lent.take_back();
        },
        [&] { registration.undo(); });
    registration.undo();
    return 0;
  } catch (const Raised&) {
    return -1;
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
    return -1;
  }
}

int traverse(PyObject* module, visitproc visit, void* arg) {
  const State* state = state_of(module);
  return state == nullptr ? 0 : state->traverse(visit, arg);
}

// A module that was not executed has zeroed memory for its state, which is an empty state. There is
// no clear: what can still call an operation keeps the module, and so the state, which the
// operation needs. Nothing in the state leads back to the module but types that the module keeps.
void free(void* module) {
  if (State* state = state_of(static_cast<PyObject*>(module))) {
    state->~State();
  }
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "decision_bounds",
    "The bounds a decision client keeps on what it pays: the errors that end a call, the budget of "
    "a\nbatch pass and the daily cost cap.\n\n"
    "A paid call holds a share of each bound from the moment it is admitted until it ends, waits "
    "while\nthe calls in flight hold the rest, and is refused when what was paid fills the bound.",
    sizeof(State),
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
