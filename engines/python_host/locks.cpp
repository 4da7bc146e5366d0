// `_PyType_Lookup` and `_PyObject_GetDictPtr` are the interpreter's own names for what it does at
// each attribute access; its public ones would make a bound method or a new dictionary of it.

#include "python_host/locks.hpp"

#include "python_host/call.hpp"
#include "python_host/failure.hpp"
#include "python_host/imports.hpp"

namespace decision_bounds::python {

namespace {

PyTypeObject* type_of(const Ref& type) { return reinterpret_cast<PyTypeObject*>(type.get()); }

/// A special method of an object, looked up on its type and bound, as the `with` statement does.
Ref special_method(const Ref& object, const char* name) {
  const Ref key = Ref::checked(PyUnicode_InternFromString(name));
  Ref function = Ref::to(_PyType_Lookup(Py_TYPE(object.get()), key.get()));
  if (function.get() == nullptr) {
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%s'",
                 Py_TYPE(object.get())->tp_name, name);
    throw Raised{};
  }
  const descrgetfunc bind = Py_TYPE(function.get())->tp_descr_get;
  if (bind == nullptr) {
    return function;
  }
  return Ref::checked(host_call([&] {
    return bind(function.get(), object.get(), reinterpret_cast<PyObject*>(Py_TYPE(object.get())));
  }));
}

/// The C function behind a method of a type, where it takes its arguments as `flags` say.
PyCFunction c_method(PyTypeObject* type, const char* name, int flags) {
  const Ref key = Ref::checked(PyUnicode_InternFromString(name));
  PyObject* method = _PyType_Lookup(type, key.get());
  if (method == nullptr || !Py_IS_TYPE(method, &PyMethodDescr_Type)) {
    return nullptr;
  }
  const PyMethodDef* definition = reinterpret_cast<PyMethodDescrObject*>(method)->d_method;
  return definition->ml_flags == flags ? definition->ml_meth : nullptr;
}

}  // namespace

LockType LockType::of(const Ref& lock) {
  PyTypeObject* type = Py_TYPE(lock.get());
  LockType found;
  // The interpreter keeps every kind of C function under one pointer type.
  found.acquire = reinterpret_cast<PyCFunctionWithKeywords>(
      reinterpret_cast<void (*)()>(c_method(type, "acquire", METH_VARARGS | METH_KEYWORDS)));
  found.release = c_method(type, "release", METH_NOARGS);
  if (found.acquire != nullptr && found.release != nullptr) {
    found.type = Ref::to(reinterpret_cast<PyObject*>(type));
  }
  return found;
}

bool LockType::is_type_of(const Ref& lock) const { return Py_TYPE(lock.get()) == type_of(type); }

void Entered::leave() {
  left_ = true;
  if (release_ != nullptr) {
    Ref::checked(host_call([&] { return release_(lock_.get(), nullptr); }));
  } else {
    call(exit_, Ref::none(), Ref::none(), Ref::none());
  }
}

bool Entered::leave_failed() {
  Failure failure = Failure::take();
  bool swallowed = false;
  {
    const Handling handling(failure);
    if (release_ != nullptr) {
      leave();
    } else {
      const Ref traceback = failure.traceback();
      swallowed = truth(call(exit_, failure.type(), failure.exception(),
                             traceback.get() == nullptr ? Ref::none() : traceback));
    }
  }
  if (!swallowed) {
    failure.restore();
  }
  return swallowed;
}

void HostLocks::load() {
  const Ref threading = import("threading");
  mutex_ = LockType::of(call(attribute(threading, "Lock")));
  reentrant_ = LockType::of(call(attribute(threading, "RLock")));
  condition_type_ = attribute(threading, "Condition");
  deque_type_ = attribute(import("collections"), "deque");
  no_arguments_ = Ref::checked(PyTuple_New(0));
  lock_name_ = interned("_lock");
  waiters_name_ = interned("_waiters");
  notify_all_name_ = interned("notify_all");
  patchable_ = Ref::checked(PyDict_New());
  if (!PyType_Check(condition_type_.get())) {
    return;  // replaced before the module was loaded: no short way
  }
  for (const char* name : {"__enter__", "__exit__", "notify_all", "notify", "__getattribute__"}) {
    const Ref key = interned(name);
    PyObject* function = _PyType_Lookup(type_of(condition_type_), key.get());
    if (function == nullptr) {
      return;
    }
    check(PyDict_SetItem(patchable_.get(), key.get(), function));
  }
  version_ = type_of(condition_type_)->tp_version_tag;
  const Ref fresh = call(condition_type_);
  if (PyObject** attributes = _PyObject_GetDictPtr(fresh.get());
      attributes != nullptr && *attributes != nullptr) {
    attribute_count_ = PyDict_GET_SIZE(*attributes);
  }
}

int HostLocks::traverse(visitproc visit, void* arg) const {
  Py_VISIT(mutex_.type.get());
  Py_VISIT(reentrant_.type.get());
  Py_VISIT(condition_type_.get());
  Py_VISIT(deque_type_.get());
  Py_VISIT(patchable_.get());
  return 0;
}

bool HostLocks::condition_type_is_unchanged() {
  PyTypeObject* type = type_of(condition_type_);
  if (type->tp_version_tag == version_ && version_ != 0) {
    return true;
  }
  // Something was set on the type, perhaps only for a while.
  Py_ssize_t position = 0;
  PyObject* name = nullptr;
  PyObject* original = nullptr;
  while (PyDict_Next(patchable_.get(), &position, &name, &original) != 0) {
    if (_PyType_Lookup(type, name) != original) {
      return false;
    }
  }
  version_ = type->tp_version_tag;
  return true;
}

const HostLocks::Inside* HostLocks::inside(const Ref& condition) {
  if (Py_TYPE(condition.get()) != type_of(condition_type_) || !condition_type_is_unchanged()) {
    return nullptr;
  }
  PyObject** attributes = _PyObject_GetDictPtr(condition.get());
  if (attributes == nullptr || *attributes == nullptr) {
    return nullptr;
  }
  Inside& seen = seen_[(reinterpret_cast<std::uintptr_t>(*attributes) / 16) % seen_.size()];
#if PY_VERSION_HEX < 0x030C0000
  // Every state of every dictionary has a number of its own. That saves two look-ups in three, and
  // a seventh of a reserve+release pair.
  const std::uint64_t version = reinterpret_cast<PyDictObject*>(*attributes)->ma_version_tag;
  if (seen.version == version) {
    return &seen;
  }
  seen.version = 0;
#endif
  if (PyDict_GET_SIZE(*attributes) != attribute_count_) {
    return nullptr;
  }
  seen.lock = PyDict_GetItemWithError(*attributes, lock_name_.get());
  seen.waiters = PyDict_GetItemWithError(*attributes, waiters_name_.get());
  if (seen.lock == nullptr || seen.waiters == nullptr) {
    return nullptr;
  }
#if PY_VERSION_HEX < 0x030C0000
  seen.version = version;
#endif
  return &seen;
}

Entered HostLocks::enter(const Ref& lock) {
  Entered entered;
  entered.lock_ = value_of(lock);
  const LockType* known = nullptr;
  if (mutex_.is_type_of(entered.lock_)) {
    known = &mutex_;
  } else if (const Inside* condition = inside(entered.lock_)) {
    Ref inner = Ref::to(condition->lock);
    if (reentrant_.is_type_of(inner)) {
      entered.lock_ = std::move(inner);
      known = &reentrant_;
    }
  }
  if (known != nullptr) {
    Ref::checked(host_call(
        [&] { return known->acquire(entered.lock_.get(), no_arguments_.get(), nullptr); }));
    entered.release_ = known->release;
    return entered;
  }
  const Ref enter = special_method(entered.lock_, "__enter__");
  entered.exit_ = special_method(entered.lock_, "__exit__");
  call(enter);
  return entered;
}

void HostLocks::notify_all(const Ref& condition) {
  const Ref notified = value_of(condition);
  const Inside* plain = inside(notified);
  if (plain != nullptr && Py_IS_TYPE(plain->waiters, type_of(deque_type_)) &&
      Py_SIZE(plain->waiters) == 0) {
    return;
  }
  call_method(notify_all_name_.get(), notified);
}

}  // namespace decision_bounds::python
