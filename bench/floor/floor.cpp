/// The least that an extension of the interpreter could take for the calls that are measured: the
/// same method calls and what calls.hpp does in them. It has the classes of the module, with as
/// much of their surface as the measurements use.

#include <cstddef>

#include "calls.hpp"

namespace bare {
namespace {

/// Makes the lock, inside a condition or (below zero) alone, and keeps the callback at this place
/// of the arguments, or the default one.
template <Py_ssize_t callback_place>
PyObject* make_bound(PyTypeObject* type, [[maybe_unused]] PyObject* arguments, PyObject*) {
  auto* bound = reinterpret_cast<Bound*>(type->tp_alloc(type, 0));
  if (bound == nullptr) {
    return nullptr;
  }
  if constexpr (callback_place >= 0) {
    const bool given = PyTuple_GET_SIZE(arguments) > callback_place;
    bound->callback = Py_NewRef(given ? PyTuple_GET_ITEM(arguments, callback_place) : known.never);
    bound->changed = PyObject_CallMethod(known.threading, "Condition", nullptr);
    bound->lock = bound->changed ? PyObject_GetAttr(bound->changed, known.inner_lock) : nullptr;
  } else {
    bound->lock = PyObject_CallMethod(known.threading, "Lock", nullptr);
  }
  if (PyErr_Occurred() != nullptr) {
    Py_CLEAR(bound);
  }
  return reinterpret_cast<PyObject*>(bound);
}

template <typename Object>
int traverse_object(PyObject* object, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(object));
  return reinterpret_cast<Object*>(object)->traverse(visit, arg);
}

template <typename Object>
void dealloc(PyObject* object) {
  PyTypeObject* type = Py_TYPE(object);
  PyObject_GC_UnTrack(object);
  reinterpret_cast<Object*>(object)->clear();
  type->tp_free(object);
  Py_DECREF(type);
}

// The interpreter keeps every kind of C function under one pointer type.
template <typename Function>
PyCFunction as_method(Function function) {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

constexpr int by_name_too = METH_FASTCALL | METH_KEYWORDS;

PyMethodDef budget_methods[] = {
    {"reserve", as_method(reserve), by_name_too, nullptr},
    {"hold", as_method(hold), by_name_too, nullptr},
    {"release", as_method(release), by_name_too, nullptr},
    {"charge", as_method(charge), by_name_too, nullptr},
    {"summary", summary, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyMethodDef spend_methods[] = {
    {"spent", spent, METH_NOARGS, nullptr},
    {"admit", as_method(admit), by_name_too, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyMethodDef rates_methods[] = {
    {"cost", as_method(most_charge), by_name_too, nullptr},
    {"tokens", as_method(most_charge), by_name_too, nullptr},
    {"learn", as_method(learn), by_name_too, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyMethodDef share_methods[] = {
    {"settle", as_method(settle), by_name_too, nullptr},
    {"__enter__", enter, METH_NOARGS, nullptr},
    {"__exit__", as_method(leave), by_name_too, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyMethodDef functions[] = {
    {"never", never, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "floor", nullptr, -1, functions, nullptr, nullptr, nullptr, nullptr};

/// Adds a class to the module, without a constructor where `make` is null. Borrowed from the
/// module.
template <typename Object>
PyTypeObject* add_class(PyObject* module, const char* name, PyMethodDef* methods, newfunc make) {
  PyType_Slot slots[] = {
      {Py_tp_dealloc, reinterpret_cast<void*>(dealloc<Object>)},
      {Py_tp_traverse, reinterpret_cast<void*>(traverse_object<Object>)},
      {Py_tp_methods, methods},
      {make == nullptr ? 0 : Py_tp_new, reinterpret_cast<void*>(make)},
      {0, nullptr},
  };
  PyType_Spec type = {name, sizeof(Object), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, slots};
  auto* made = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&type));
  if (made != nullptr && PyModule_AddType(module, made) != 0) {
    Py_CLEAR(made);
  }
  return made;
}

/// The C function behind a method of a lock, which this floor needs the host to have.
PyCFunction c_method(PyObject* lock, const char* name, int flags) {
  PyObject* method = PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(lock)), name);
  if (method != nullptr && Py_IS_TYPE(method, &PyMethodDescr_Type)) {
    const PyMethodDef* found = reinterpret_cast<PyMethodDescrObject*>(method)->d_method;
    Py_DECREF(method);
    if (found->ml_flags == flags) {
      return found->ml_meth;
    }
  }
  PyErr_Format(PyExc_ImportError, "the host's locks have no C function '%s' of this kind", name);
  return nullptr;
}

LockType look_up_lock(const char* factory) {
  LockType type = {};
  if (PyObject* lock = PyObject_CallMethod(known.threading, factory, nullptr)) {
    type.acquire = reinterpret_cast<PyCFunctionWithKeywords>(
        reinterpret_cast<void (*)()>(c_method(lock, "acquire", METH_VARARGS | METH_KEYWORDS)));
    type.release = c_method(lock, "release", METH_NOARGS);
    Py_DECREF(lock);
  }
  return type;
}

void look_up_names() {
  known.cached = PyUnicode_InternFromString("cached");
  known.input_tokens = PyUnicode_InternFromString("input_tokens");
  known.cost = PyUnicode_InternFromString("cost");
  known.inner_lock = PyUnicode_InternFromString("_lock");
  const char* keys[] = {"calls",    "cache_hits", "input_tokens",
                        "cost_usd", "max_calls",  "max_tokens"};
  for (std::size_t index = 0; index < 6; ++index) {
    known.summary_keys[index] = PyUnicode_InternFromString(keys[index]);
  }
}

}  // namespace
}  // namespace bare

PyMODINIT_FUNC PyInit_floor() {
  using namespace bare;
  PyObject* module = PyModule_Create(&definition);
  known.threading = PyImport_ImportModule("threading");
  if (module == nullptr || known.threading == nullptr) {
    return nullptr;
  }
  known.never = PyObject_GetAttrString(module, "never");
  known.no_arguments = PyTuple_New(0);
  known.zero = PyLong_FromLong(0);
  known.nothing_spent = PyFloat_FromDouble(0.0);
  look_up_names();
  known.mutex = look_up_lock("Lock");
  known.reentrant = look_up_lock("RLock");
  known.share = add_class<Share>(module, "floor.Share", share_methods, nullptr);
  add_class<Bound>(module, "floor.RunBudget", budget_methods, make_bound<7>);
  add_class<Bound>(module, "floor.DailySpend", spend_methods, make_bound<1>);
  add_class<Bound>(module, "floor.RequestRates", rates_methods, make_bound<-1>);
  return PyErr_Occurred() == nullptr ? module : nullptr;
}
