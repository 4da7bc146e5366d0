// `_PyObject_GetDictPtr` is the interpreter's own name for what it does at each attribute access;
// its public function would make a new `__dict__` where there is none.

#include "python_host/locks.hpp"

#include "python_host/error.hpp"

namespace decision_bounds::python {

namespace {

PyTypeObject* type_in(const Ref& type) { return reinterpret_cast<PyTypeObject*>(type.get()); }

/// A special method of an object, looked up on its type and bound, as the `with` statement does.
Ref special_method(const Ref& object, const Ref& name) {
  Ref function = attribute_of_type(Py_TYPE(object.get()), name);
  if (function.get() == nullptr) {
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'",
                 Py_TYPE(object.get())->tp_name, name.get());
    throw Raised{};
  }
  const descrgetfunc bind = Py_TYPE(function.get())->tp_descr_get;
  if (bind == nullptr) {
    return function;
  }
  return checked(bind, function, object, reinterpret_cast<PyObject*>(Py_TYPE(object.get())));
}

/// The C function behind a bound method of a lock, where it takes its arguments as `flags` say.
PyCFunction c_function(const Ref& lock, const char* method, int flags) {
  const Ref bound = attribute(lock, method);
  const bool is_known =
      PyCFunction_Check(bound.get()) && PyCFunction_GET_FLAGS(bound.get()) == flags;
  return is_known ? PyCFunction_GET_FUNCTION(bound.get()) : nullptr;
}

#if PY_VERSION_HEX < 0x030D0000
/// The version tag of a dictionary. CPython 3.12 keeps it up to date, but has deprecated its name.
std::uint64_t dict_version_of(PyObject* dictionary) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  return reinterpret_cast<PyDictObject*>(dictionary)->ma_version_tag;
#pragma GCC diagnostic pop
}
#endif

}  // namespace

LockType LockType::of(const Ref& lock) {
  LockType found;
  // The interpreter keeps every kind of C function under one pointer type.
  found.acquire = reinterpret_cast<PyCFunctionWithKeywords>(
      reinterpret_cast<void (*)()>(c_function(lock, "acquire", METH_VARARGS | METH_KEYWORDS)));
  found.release = c_function(lock, "release", METH_NOARGS);
  if (found.acquire != nullptr && found.release != nullptr) {
    found.type = Ref::to(reinterpret_cast<PyObject*>(Py_TYPE(lock.get())));
  }
  return found;
}

bool Entered::leave_failed() {
  Error error = Error::take();
  bool swallowed = false;
  {
    const Handling handling(error);
    if (release_ != nullptr) {
      leave();
    } else {
      const Ref traceback = error.traceback();
      swallowed = truth(call(left_by_, error.type(), error.exception(),
                             traceback.get() == nullptr ? Ref::none() : traceback));
    }
  }
  if (!swallowed) {
    error.restore();
  }
  return swallowed;
}

Locks::Locks(const Ref& threading, Ref condition_type)
    : mutex_(LockType::of(call(attribute(threading, "Lock")))),
      reentrant_(LockType::of(call(attribute(threading, "RLock")))),
      condition_type_(std::move(condition_type)),
      deque_type_(attribute(import("collections"), "deque")),
      no_arguments_(tuple_of()),
      enter_name_(interned("__enter__")),
      exit_name_(interned("__exit__")),
      lock_name_(interned("_lock")),
      waiters_name_(interned("_waiters")),
      notify_all_name_(interned("notify_all")),
      patchable_(checked(PyDict_New)) {
  if (!PyType_Check(condition_type_.get())) {
    return;  // replaced before the module was loaded: no short way
  }
  for (const char* name : {"__enter__", "__exit__", "notify_all", "notify", "__getattribute__"}) {
    const Ref key = interned(name);
    const Ref function = attribute_of_type(type_in(condition_type_), key);
    if (function.get() == nullptr) {
      return;
    }
    checked(PyDict_SetItem, patchable_, key, function);
  }
  type_version_ = type_in(condition_type_)->tp_version_tag;
  const Ref fresh = call(condition_type_);
  if (PyObject** attributes = _PyObject_GetDictPtr(fresh.get());
      attributes != nullptr && *attributes != nullptr) {
    attribute_count_ = PyDict_GET_SIZE(*attributes);
  }
}

int Locks::traverse(visitproc visit, void* arg) const {
  Py_VISIT(mutex_.type.get());
  Py_VISIT(reentrant_.type.get());
  Py_VISIT(condition_type_.get());
  Py_VISIT(deque_type_.get());
  Py_VISIT(patchable_.get());
  return 0;
}

bool Locks::condition_type_is_unchanged() const {
  PyTypeObject* type = type_in(condition_type_);
  if (type->tp_version_tag == type_version_ && type_version_ != 0) {
    return true;
  }
  // Something was set on the type, perhaps only for a while.
  Py_ssize_t position = 0;
  PyObject* name = nullptr;
  PyObject* original = nullptr;
  while (PyDict_Next(patchable_.get(), &position, &name, &original) != 0) {
    if (attribute_of_type(type, Ref::to(name)).get() != original) {
      return false;
    }
  }
  return true;
}

#if PY_VERSION_HEX < 0x030D0000

// Every state of every dictionary has a version tag of its own. Comparing tags saves the look-ups,
// a seventh of a reserve+release pair.
Ref Locks::part_of(Condition& condition, const Ref& /*name*/,
                   PyObject* Condition::*remembered) const {
  PyObject* attributes = plain_attributes(condition);
  if (attributes == nullptr) {
    return {};
  }
  if (dict_version_of(attributes) != condition.dict_version) {
    // The look-ups may run code that lets the condition go.
    const Ref kept = Ref::to(attributes);
    remember_parts(condition, kept);
    return Ref::to(condition.*remembered);
  }
  return Ref::to(condition.*remembered);
}

void Locks::remember_parts(Condition& condition, const Ref& attributes) const {
  const std::uint64_t version = dict_version_of(attributes.get());
  const Ref lock = item(attributes, lock_name_);
  const Ref waiters = item(attributes, waiters_name_);
  // Where a look-up ran code that changed the dictionary, nothing is found: the next use looks
  // again.
  const bool found = PyDict_GET_SIZE(attributes.get()) == attribute_count_ &&
                     dict_version_of(attributes.get()) == version;
  condition.dict_version = found ? version : 0;
  condition.lock = found ? lock.get() : nullptr;
  condition.waiters = found ? waiters.get() : nullptr;
}

#else

Ref Locks::part_of(Condition& condition, const Ref& name,
                   PyObject* Condition::* /*remembered*/) const {
  const Ref attributes = Ref::to(plain_attributes(condition));
  if (attributes.get() == nullptr || PyDict_GET_SIZE(attributes.get()) != attribute_count_) {
    return {};
  }
  return item(attributes, name);
}

#endif

/// The `__dict__` of an exact condition whose class nobody has patched, borrowed; null for any
/// other object.
PyObject* Locks::plain_attributes(const Condition& condition) const {
  if (condition.object.get() == nullptr) {
    raise_unset_field();
  }
  if (Py_TYPE(condition.object.get()) != type_in(condition_type_) ||
      !condition_type_is_unchanged()) {
    return nullptr;
  }
  PyObject** place = _PyObject_GetDictPtr(condition.object.get());
  return place == nullptr ? nullptr : *place;
}

Entered Locks::enter(const Ref& lock, Delayed* interrupt) const {
  Ref entered = value_of(lock);
  if (mutex_.is_type_of(entered)) {
    return enter_directly(mutex_, std::move(entered), interrupt);
  }
  const Ref enter = special_method(entered, enter_name_);
  Entered by_exit(special_method(entered, exit_name_));
  call(enter);
  return by_exit;
}

}  // namespace decision_bounds::python
