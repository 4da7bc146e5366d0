#include "python_host/give_back.hpp"

#include <new>

#include "python_host/recursion.hpp"
#include "python_host/state.hpp"

namespace decision_bounds::python {

namespace {

struct GiveBack {
  PyObject_HEAD
  vectorcallfunc vectorcall;
  State* state;
  EndCall end_call;
  PyObject* module;  ///< Keeps the state.
  PyObject* owner;
  PyObject* amount;
};

GiveBack* give_back_of(PyObject* object) { return reinterpret_cast<GiveBack*>(object); }

int traverse(PyObject* object, visitproc visit, void* arg) {
  GiveBack* self = give_back_of(object);
  Py_VISIT(Py_TYPE(object));
  Py_VISIT(self->module);
  Py_VISIT(self->owner);
  Py_VISIT(self->amount);
  return 0;
}

/// The module stays: as long as the function can be called, its state must be there.
int clear(PyObject* object) {
  GiveBack* self = give_back_of(object);
  Py_CLEAR(self->owner);
  Py_CLEAR(self->amount);
  return 0;
}

/// However deep such functions are nested, a bound lies between two of them, whose end is not
/// nested (instance.hpp).
void dealloc(PyObject* object) {
  PyTypeObject* type = Py_TYPE(object);
  PyObject_GC_UnTrack(object);
  clear(object);
  Py_CLEAR(give_back_of(object)->module);
  type->tp_free(object);
  Py_DECREF(type);
}

/// The reply, by position or by its name.
PyObject* only_argument(PyObject* const* arguments, Py_ssize_t positional, PyObject* keywords) {
  const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
  if (positional + named == 1 && (named == 0 || PyUnicode_CompareWithASCIIString(
                                                    PyTuple_GET_ITEM(keywords, 0), "reply") == 0)) {
    return arguments[0];
  }
  PyErr_SetString(PyExc_TypeError, "give_back() takes exactly one argument, 'reply'");
  throw Raised{};
}

PyObject* run(PyObject* callable, PyObject* const* arguments, std::size_t flags,
              PyObject* keywords) {
  try {
    GiveBack* self = give_back_of(callable);
    PyObject* reply = only_argument(arguments, PyVectorcall_NARGS(flags), keywords);
    const Ref owner = value_of(Ref::to(self->owner));
    self->end_call(self->state, owner.get(), Ref::to(self->amount), Optional(Ref::to(reply)));
    return Py_NewRef(Py_None);
  } catch (const Raised&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    return PyErr_NoMemory();
  }
}

PyObject* vectorcall(PyObject* callable, PyObject* const* arguments, std::size_t flags,
                     PyObject* keywords) {
  return count_recursion([&] { return run(callable, arguments, flags, keywords); });
}

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(GiveBack, vectorcall), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char*>("Gives back what one call holds of one bound.")},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_members, members},
    {0, nullptr},
};

PyType_Spec type_spec = {"decision_bounds.give_back", sizeof(GiveBack), 0,
                         Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                             Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
                         slots};

}  // namespace

Ref make_give_back_type(PyObject* module) {
  return Ref::checked(PyType_FromModuleAndSpec(module, &type_spec, nullptr));
}

Ref make_give_back(State* state, PyObject* owner, const Ref& amount, EndCall end_call) {
  auto* type = reinterpret_cast<PyTypeObject*>(state->give_back_type.get());
  Ref object = Ref::checked(host_call([&] { return type->tp_alloc(type, 0); }));
  GiveBack* self = give_back_of(object.get());
  self->vectorcall = vectorcall;
  self->state = state;
  self->end_call = end_call;
  self->module = Py_NewRef(state->module);
  self->owner = Py_NewRef(owner);
  self->amount = Py_NewRef(amount.get());
  return object;
}

}  // namespace decision_bounds::python
