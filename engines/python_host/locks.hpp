#pragma once

/// The host's locks and conditions: entered and left as its `with` statement does it, with a short
/// way for its own exact types.
///
/// One enter, wake-all and leave of a `threading.Condition` is six calls of Python functions. For
/// an exact condition over an exact reentrant lock the inner lock is taken and given up directly,
/// and the wake-all is left out where nobody waits: the two save seven eighths of a reserve+charge
/// pair.

#include <array>
#include <cstdint>
#include <utility>

#include "python_host/error.hpp"
#include "python_host/fields.hpp"
#include "python_host/interpreter.hpp"

namespace decision_bounds::python {

#if PY_VERSION_HEX >= 0x030F0000
using EnterFunction = PyCFunction;
inline constexpr int enter_flags = METH_NOARGS;
#else
using EnterFunction = PyCFunctionWithKeywords;
inline constexpr int enter_flags = METH_VARARGS | METH_KEYWORDS;
#endif

/// A lock type of the host, and the C functions behind its `__enter__` and `release`.
struct LockType {
  Ref type;  ///< Nothing where the short way is closed.
  EnterFunction enter = nullptr;
  PyCFunction release = nullptr;
  PyCFunction locked = nullptr;  ///< Null where there is a global lock.

  static LockType of(const Ref& lock);
  /// Whether any thread has a lock of this type. Requires `locked`.
  bool is_locked(const Ref& lock) const { return checked(locked, lock, nullptr).get() == Py_True; }
  bool is_type_of(PyObject* lock) const { return Py_TYPE(lock) == as_type(type); }
};

/// A special method of an object, looked up on its type as the `with` statement does it. Calling it
/// makes no bound method, for which there may be no memory: a call could then not give back what it
/// holds.
class SpecialMethod {
 public:
  SpecialMethod() = default;
  SpecialMethod(const Ref& of, const Ref& name);

  template <typename... Arguments>
  Ref operator()(const Arguments&... arguments) const {
    return object_.get() == nullptr ? call(function_, arguments...)
                                    : call(function_, object_, arguments...);
  }

 private:
  Ref function_;
  Ref object_;  ///< Nothing where the function has been bound to it.
};

/// A lock that was entered, to be left once.
class Entered {
 public:
  Entered(Ref lock, PyCFunction release) : lock_(std::move(lock)), release_(release) {}
  explicit Entered(SpecialMethod exit) : exit_(std::move(exit)) {}

  /// Leaves where the block ended well.
  void leave() {
    left_ = true;
    if (release_ != nullptr) {
      checked(release_, lock_, nullptr);
    } else {
      exit_(Ref::none(), Ref::none(), Ref::none());
    }
  }
  bool is_left() const { return left_; }

  /// Leaves where the block's error is set. Returns whether the lock has swallowed the error, as an
  /// `__exit__` may; then none is set.
  bool leave_failed();

 private:
  Ref lock_;
  PyCFunction release_ = nullptr;  ///< Null where the lock was not taken the short way.
  SpecialMethod exit_;             ///< Leaves it then.
  bool left_ = false;
};

/// The locks and the condition type of the host, as they were when the module was loaded.
class Locks {
 public:
  Locks(const Ref& threading, const Ref& condition_type);
  int traverse(visitproc visit, void* arg) const;

  /// Enters a lock of any type. The section is given up while the thread waits for it.
  ///
  /// A signal whose handler raises ends the taking of a lock. Where there is an `interrupt`, it
  /// takes that error, and the lock is taken all the same (on the short way).
  Entered enter(const Ref& lock, Delayed* interrupt, CriticalSection* section) const;
  /// The same for a condition, by its lock where that is exact and nobody has patched it.
  Entered enter(Condition& condition, Delayed* interrupt, CriticalSection* section) const {
    Ref lock = part_of(condition, lock_name_, &Condition::lock);
    return lock.get() != nullptr && reentrant_.is_type_of(lock.get())
               ? enter_directly(reentrant_, std::move(lock), interrupt, section)
               : enter(condition.object, interrupt, section);
  }

  /// Wakes all that wait on a condition. The caller has entered it.
  void notify_all(Condition& condition) const {
    const Ref waiters = part_of(condition, waiters_name_, &Condition::waiters);
    const bool nobody_waits = waiters.get() != nullptr &&
                              Py_TYPE(waiters.get()) == as_type(deque_type_) &&
                              size_of(waiters.get()) == 0;
    if (!nobody_waits) {
      call_method(notify_all_name_, condition.object);
    }
  }

 private:
  Entered enter_directly(const LockType& type, Ref lock, Delayed* interrupt,
                         CriticalSection* section) const {
    const Suspension suspension(has_global_lock || !type.is_locked(lock) ? nullptr : section);
    for (;;) {
      try {
#if PY_VERSION_HEX >= 0x030F0000
        checked(type.enter, lock, nullptr);
#else
        checked(type.enter, lock, no_arguments_, nullptr);
#endif
        return {std::move(lock), type.release};
      } catch (const Raised&) {
        if (interrupt == nullptr) {
          throw;
        }
      }
      interrupt->take();
    }
  }
  /// `_lock` or `_waiters` of an exact condition that nobody has patched, neither the object nor
  /// its class; nothing for any other object.
  Ref part_of(Condition& condition, const Ref& name, PyObject* Condition::*remembered) const;
#if PY_VERSION_HEX < 0x030D0000
  /// Without waiters where the condition asks anybody else than its lock whether that is owned, as
  /// each wake-all does.
  void remember_parts(Condition& condition, const Ref& attributes) const;
  /// Whether it is a method of the host's own reentrant lock; false of null.
  bool is_of_reentrant_lock(const Ref& method) const;
#endif
  /// Whether it is an exact condition whose class nobody has patched. Raises `AttributeError` where
  /// it is nothing.
  bool is_plain(const Ref& condition) const;
  bool condition_type_is_unchanged() const;

  LockType mutex_;
  LockType reentrant_;
  Ref condition_type_;  ///< Nothing where the short way is closed.
  Ref deque_type_;
  // None of these is made where it is used: a settle that finds no memory for it would lose what
  // its share holds.
  Ref no_arguments_;  ///< The empty tuple.
  Ref enter_name_;
  Ref exit_name_;
  Ref is_owned_name_;
  Ref lock_name_;
  Ref waiters_name_;
  Ref notify_all_name_;
  /// Names, and what the condition type has under each, or nothing: what the short way leaves out.
  std::array<std::pair<Ref, Ref>, 8> patchable_;
  std::uint64_t type_version_ = 0;  ///< Of the condition type, as it was found.
  Py_ssize_t attribute_count_ = 0;  ///< Of a condition that nobody has added to.
};

}  // namespace decision_bounds::python
