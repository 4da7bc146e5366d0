#pragma once

/// The calls of the floor: bare lock pairs, reads of the reply and calls of the callbacks. They
/// count nothing, test nothing (not even their arguments) and refuse nobody.

#include <Python.h>

namespace bare {

/// A lock type of the host, by the C functions behind `acquire` and `release`.
struct LockType {
  PyCFunctionWithKeywords acquire;
  PyCFunction release;
};

/// Looked up once, when the floor is loaded; there is only one in a process.
struct Known {
  PyObject* threading;
  PyObject* never;
  PyObject* no_arguments;
  PyObject *cached, *input_tokens, *cost, *inner_lock;
  PyObject* summary_keys[6];
  PyObject *zero, *nothing_spent;
  PyTypeObject* share;
  LockType mutex, reentrant;
};

inline Known known;

/// A budget, an account or the rates: a lock, and the one callback that each operation asks.
struct Bound {
  // clang-format off
  PyObject_HEAD
  PyObject* lock;
  // clang-format on
  PyObject* changed;   ///< The condition that `lock` belongs to; null for the rates.
  PyObject* callback;  ///< Whether to stop, or today's date; null for the rates.

  int traverse(visitproc visit, void* arg) const {
    Py_VISIT(lock);
    Py_VISIT(changed);
    Py_VISIT(callback);
    return 0;
  }

  void clear() {
    Py_CLEAR(lock);
    Py_CLEAR(changed);
    Py_CLEAR(callback);
  }
};

/// Gives its bound `end` and the reply, once.
struct Share {
  // clang-format off
  PyObject_HEAD
  Bound* bound;
  // clang-format on
  bool (*end)(Bound* bound, PyObject* reply);

  int traverse(visitproc visit, void* arg) const {
    Py_VISIT(bound);
    return 0;
  }

  void clear() { Py_CLEAR(bound); }
};

/// Between bare `acquire` and `release`, whatever the block answers.
template <typename Block>
bool locked(const Bound* bound, const LockType& type, const Block& block) {
  PyObject* taken = type.acquire(bound->lock, known.no_arguments, nullptr);
  if (taken == nullptr) {
    return false;
  }
  Py_DECREF(taken);
  const bool done = block();
  PyObject* given_up = type.release(bound->lock, nullptr);
  Py_XDECREF(given_up);
  return done && given_up != nullptr;
}

inline bool nothing() { return true; }

inline bool done(PyObject* answer) {
  Py_XDECREF(answer);
  return answer != nullptr;
}

inline bool ask(PyObject* callback) { return done(PyObject_CallNoArgs(callback)); }

inline bool read(PyObject* reply, PyObject* name) { return done(PyObject_GetAttr(reply, name)); }

inline PyObject* none_if(bool succeeded) { return succeeded ? Py_NewRef(Py_None) : nullptr; }

inline Bound* bound_of(PyObject* object) { return reinterpret_cast<Bound*>(object); }

inline bool end_budget_call(Bound* budget, PyObject* reply) {
  return locked(budget, known.reentrant, [&] {
    if (reply == Py_None) {
      return true;
    }
    PyObject* cached = PyObject_GetAttr(reply, known.cached);
    const bool hit = cached == Py_True;
    return done(cached) && (hit || (read(reply, known.input_tokens) && read(reply, known.cost)));
  });
}

inline bool end_paid_call(Bound* spend, PyObject* reply) {
  return locked(spend, known.reentrant, [&] {
    return reply == Py_None || (ask(spend->callback) && read(reply, known.cost));
  });
}

inline PyObject* make_share(PyObject* self, bool (*end)(Bound*, PyObject*)) {
  auto* share = reinterpret_cast<Share*>(known.share->tp_alloc(known.share, 0));
  if (share != nullptr) {
    share->bound = bound_of(Py_NewRef(self));
    share->end = end;
  }
  return reinterpret_cast<PyObject*>(share);
}

// They could be passed by name, as they can be to the module; those of `admit` are.
using Arguments = PyObject* const*;

inline bool admit_budget_call(PyObject* self) {
  return ask(bound_of(self)->callback) && locked(bound_of(self), known.reentrant, nothing);
}

inline PyObject* reserve(PyObject* self, Arguments, Py_ssize_t, PyObject*) {
  return none_if(admit_budget_call(self));
}

inline PyObject* hold(PyObject* self, Arguments, Py_ssize_t, PyObject*) {
  return admit_budget_call(self) ? make_share(self, end_budget_call) : nullptr;
}

inline PyObject* release(PyObject* self, Arguments, Py_ssize_t, PyObject*) {
  return none_if(end_budget_call(bound_of(self), Py_None));
}

inline PyObject* charge(PyObject* self, Arguments arguments, Py_ssize_t, PyObject*) {
  return none_if(end_budget_call(bound_of(self), arguments[0]));
}

inline PyObject* summary(PyObject* self, PyObject*) {
  PyObject* mapping = PyDict_New();
  const bool filled = mapping != nullptr && locked(bound_of(self), known.reentrant, [&] {
                        for (PyObject* key : known.summary_keys) {
                          if (PyDict_SetItem(mapping, key, known.zero) != 0) {
                            return false;
                          }
                        }
                        return true;
                      });
  return filled ? mapping : nullptr;
}

inline PyObject* spent(PyObject* self, PyObject*) {
  const bool asked =
      locked(bound_of(self), known.reentrant, [&] { return ask(bound_of(self)->callback); });
  return asked ? Py_NewRef(known.nothing_spent) : nullptr;
}

inline PyObject* admit(PyObject* self, Arguments arguments, Py_ssize_t, PyObject*) {
  const bool asked = locked(bound_of(self), known.reentrant,
                            [&] { return ask(bound_of(self)->callback) && ask(arguments[0]); });
  return asked ? make_share(self, end_paid_call) : nullptr;
}

inline PyObject* most_charge(PyObject* self, Arguments, Py_ssize_t, PyObject*) {
  return locked(bound_of(self), known.mutex, nothing) ? PyFloat_FromDouble(0.05) : nullptr;
}

inline PyObject* learn(PyObject* self, Arguments arguments, Py_ssize_t, PyObject*) {
  return none_if(locked(bound_of(self), known.mutex, [&] {
    return read(arguments[2], known.cost) && read(arguments[2], known.input_tokens);
  }));
}

inline PyObject* settle(PyObject* self, Arguments arguments, Py_ssize_t, PyObject*) {
  auto* share = reinterpret_cast<Share*>(self);
  auto* end = share->end;
  share->end = nullptr;
  return none_if(end == nullptr || end(share->bound, arguments[0]));
}

inline PyObject* enter(PyObject* self, PyObject*) { return Py_NewRef(self); }

inline PyObject* leave(PyObject* self, Arguments, Py_ssize_t, PyObject*) {
  PyObject* const no_reply[] = {Py_None};
  return settle(self, no_reply, 1, nullptr);
}

inline PyObject* never(PyObject*, PyObject*) { return Py_NewRef(Py_False); }

}  // namespace bare
