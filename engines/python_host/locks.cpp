// `_PyObject_GetDictPtr` is the interpreter's own name for what it does at each attribute access;
// its public function would make a new `__dict__` where there is none.

#include "python_host/locks.hpp"

#include <algorithm>

#include "python_host/error.hpp"

namespace decision_bounds::python {

namespace {

/// The C function behind a bound method of a lock, where it takes its arguments as `flags` say.
PyCFunction c_function(const Ref& lock, const char* method, int flags) {
  const Ref bound = attribute(lock, method);
  const bool is_known =
      PyCFunction_Check(bound.get()) && PyCFunction_GET_FLAGS(bound.get()) == flags;
  return is_known ? PyCFunction_GET_FUNCTION(bound.get()) : nullptr;
}

}  // namespace

LockType LockType::of(const Ref& lock) {
  LockType found;
  const PyCFunction enter = c_function(lock, "__enter__", enter_flags);
  // The interpreter keeps every kind of C function under one pointer type.
  found.enter = reinterpret_cast<EnterFunction>(reinterpret_cast<void (*)()>(enter));
  found.release = c_function(lock, "release", METH_NOARGS);
  // A subclass may have an exit of its own.
#if PY_VERSION_HEX >= 0x030F0000
  const bool is_left_so = c_function(lock, "__exit__", METH_FASTCALL) != nullptr;
#else
  const bool is_left_so = c_function(lock, "__exit__", METH_VARARGS) == found.release;
#endif
  if (enter != nullptr && found.release != nullptr && is_left_so) {
    if (!has_global_lock) {
      found.locked = c_function(lock, "locked", METH_NOARGS);
    }
    if (has_global_lock || found.locked != nullptr) {
      found.type = type_of(lock.get());
    }
  }
  return found;
}

SpecialMethod::SpecialMethod(const Ref& of, const Ref& name)
    : function_(attribute_of_type(Py_TYPE(of.get()), name)) {
  if (function_.get() == nullptr) {
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'",
                 Py_TYPE(of.get())->tp_name, name.get());
    throw Raised{};
  }
  PyTypeObject* const type = Py_TYPE(function_.get());
  if (PyType_HasFeature(type, Py_TPFLAGS_METHOD_DESCRIPTOR)) {
    object_ = of;
  } else if (type->tp_descr_get != nullptr) {
    function_ = checked(type->tp_descr_get, function_, of, type_of(of.get()));
  }
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
      swallowed = truth(exit_(error.type(), error.exception(),
                              traceback.get() == nullptr ? Ref::none() : traceback));
    }
  }
  if (!swallowed) {
    error.restore();
  }
  return swallowed;
}

Locks::Locks(const Ref& threading, const Ref& condition_type)
    : mutex_(LockType::of(call(attribute(threading, "Lock")))),
      reentrant_(LockType::of(call(attribute(threading, "RLock")))),
      deque_type_(attribute(import("collections"), "deque")),
      no_arguments_(tuple_of()),
      enter_name_(interned("__enter__")),
      exit_name_(interned("__exit__")),
      is_owned_name_(interned("_is_owned")),
      lock_name_(interned("_lock")),
      waiters_name_(interned("_waiters")),
      notify_all_name_(interned("notify_all")) {
  // What was replaced before the module was loaded, or is of a type that was, has no short way.
  const auto is_function = [](const Ref& found) {
    return found.get() != nullptr && PyFunction_Check(found.get());
  };
  if (!PyType_Check(condition_type.get()) ||
      !is_function(attribute_of_type(as_type(condition_type), enter_name_))) {
    return;
  }
  const Ref globals = attribute(threading, "__dict__");
  auto* patchable = patchable_.begin();
  for (const char* name : {"__enter__", "__exit__", "notify_all", "notify", "_is_owned",
                           "__getattribute__", "_lock", "_waiters"}) {
    patchable->first = interned(name);
    patchable->second = attribute_of_type(as_type(condition_type), patchable->first);
    if (is_function(patchable->second) &&
        PyFunction_GET_GLOBALS(patchable->second.get()) != globals.get()) {
      return;
    }
    ++patchable;
  }
  const Ref attributes = attribute(call(condition_type), "__dict__");
  attribute_count_ = checked(PyDict_Size, attributes);
  type_version_ = class_version_of(as_type(condition_type));
  condition_type_ = condition_type;
}

int Locks::traverse(visitproc visit, void* arg) const {
  Py_VISIT(mutex_.type.get());
  Py_VISIT(reentrant_.type.get());
  Py_VISIT(condition_type_.get());
  Py_VISIT(deque_type_.get());
  for (const auto& [name, original] : patchable_) {
    Py_VISIT(original.get());
  }
  return 0;
}

bool Locks::condition_type_is_unchanged() const {
  PyTypeObject* type = as_type(condition_type_);
  if (type == nullptr) {
    return false;
  }
  if (class_version_of(type) == type_version_ && type_version_ != 0) {
    return true;
  }
  // Something was set on the type, perhaps only for a while.
  return std::ranges::all_of(patchable_, [&](const auto& each) {
    return attribute_of_type(type, each.first).get() == each.second.get();
  });
}

#if PY_VERSION_HEX < 0x030D0000

// Every state of every dictionary has a version tag of its own. Comparing tags saves the look-ups,
// a seventh of a reserve+release pair.
Ref Locks::part_of(Condition& condition, const Ref& /*name*/,
                   PyObject* Condition::*remembered) const {
  if (!is_plain(condition.object)) {
    return {};
  }
  PyObject** place = _PyObject_GetDictPtr(condition.object.get());
  PyObject* attributes = place == nullptr ? nullptr : *place;
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

bool Locks::is_of_reentrant_lock(const Ref& method) const {
  return method.get() != nullptr && PyCFunction_Check(method.get()) &&
         PyCFunction_GET_SELF(method.get()) != nullptr &&
         reentrant_.is_type_of(PyCFunction_GET_SELF(method.get()));
}

void Locks::remember_parts(Condition& condition, const Ref& attributes) const {
  const std::uint64_t version = dict_version_of(attributes.get());
  const Ref lock = item(attributes.get(), lock_name_);
  const Ref waiters = item(attributes.get(), waiters_name_);
  const Ref is_owned = item(attributes.get(), is_owned_name_);
  // Where a look-up ran code that changed the dictionary, nothing is found: the next use looks
  // again.
  const bool found = PyDict_GET_SIZE(attributes.get()) == attribute_count_ &&
                     dict_version_of(attributes.get()) == version;
  condition.dict_version = found ? version : 0;
  condition.lock = found ? lock.get() : nullptr;
  condition.waiters = found && is_of_reentrant_lock(is_owned) ? waiters.get() : nullptr;
}

#else

// Without tags the parts are looked up at each use, and `_is_owned` is taken for granted: looking
// for that as well would cost 3 % of a reserve+charge pair.
Ref Locks::part_of(Condition& condition, const Ref& name,
                   PyObject* Condition::* /*remembered*/) const {
  const auto& object = steady(condition.object);
  if (!is_plain(object)) {
    return {};
  }
  const Ref attributes = found(new_dict(object.get()));
  if (attributes.get() == nullptr || PyDict_GET_SIZE(attributes.get()) != attribute_count_) {
    return {};
  }
  return item(attributes.get(), name);
}

#endif

bool Locks::is_plain(const Ref& condition) const {
  // First: the look-ups on the type may run code that rebinds the field.
  const bool type_is_unchanged = condition_type_is_unchanged();
  if (condition.get() == nullptr) {
    raise_unset_field();
  }
  return type_is_unchanged && Py_TYPE(condition.get()) == as_type(condition_type_);
}

Entered Locks::enter(const Ref& lock, Delayed* interrupt, CriticalSection* section) const {
  Ref entered = value_of(lock);
  if (mutex_.is_type_of(entered.get())) {
    return enter_directly(mutex_, std::move(entered), interrupt, section);
  }
  const SpecialMethod enter(entered, enter_name_);
  Entered by_exit(SpecialMethod(entered, exit_name_));
  const Suspension suspension(section);
  enter();
  return by_exit;
}

}  // namespace decision_bounds::python
