#pragma once

/// The host's locks and conditions: entered and left as its `with` statement does it, with a short
/// way for its own exact types.
///
/// One enter, wake-all and leave of a `threading.Condition` is six calls into functions of the
/// host's language. For an exact condition over an exact reentrant lock the inner lock is taken and
/// given up directly, and the wake-all is left out where nobody waits: the two save seven eighths
/// of a reserve+charge pair.

#include <array>
#include <cstdint>

#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// A lock type of the host, and the C functions behind its `acquire` and `release`.
struct LockType {
  Ref type;  ///< Nothing where the short way is closed.
  PyCFunctionWithKeywords acquire = nullptr;
  PyCFunction release = nullptr;

  static LockType of(const Ref& lock);
  bool is_type_of(const Ref& lock) const;
};

/// A lock that was entered, to be left once.
class Entered {
 public:
  /// Leaves where the block ended well.
  void leave();
  bool is_left() const { return left_; }

  /// Leaves where the block's error is set. Returns whether the lock has swallowed the error, as an
  /// `__exit__` may; then none is set.
  bool leave_failed();

 private:
  friend class HostLocks;

  bool left_ = false;
  Ref lock_;
  PyCFunction release_ = nullptr;  ///< Gives `lock_` up on the short way.
  Ref exit_;                       ///< The bound `__exit__` on the other.
};

/// The locks and the condition type of the host, as they were when the module was loaded.
class HostLocks {
 public:
  void load();
  int traverse(visitproc visit, void* arg) const;

  Entered enter(const Ref& lock);

  /// Wakes all that wait on a condition. The caller has entered it.
  void notify_all(const Ref& condition);

 private:
  /// What an exact condition holds, borrowed from it, while its attributes have this version.
  struct Inside {
    std::uint64_t version = 0;
    PyObject* lock = nullptr;
    PyObject* waiters = nullptr;
  };

  /// The inside of an exact condition that nobody has patched, neither it nor its type, until other
  /// code runs; null for any other object.
  const Inside* inside(const Ref& condition);
  /// Whether the condition type has the methods that it had when the module was loaded.
  bool condition_type_is_unchanged();

  LockType mutex_;
  LockType reentrant_;
  Ref condition_type_;
  Ref deque_type_;
  Ref no_arguments_;  ///< The empty tuple.
  Ref lock_name_;
  Ref waiters_name_;
  Ref notify_all_name_;
  Ref patchable_;  ///< Names and functions of the condition type that the short way leaves out.
  unsigned version_ = 0;  ///< The type's version tag when it was last seen unchanged.
  /// Of a condition that nobody has added to; 0, which none has, where the short way is closed.
  Py_ssize_t attribute_count_ = 0;
  std::array<Inside, 16> seen_;  ///< By the place of the attributes in memory.
};

}  // namespace decision_bounds::python
