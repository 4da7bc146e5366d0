#pragma once

/// What the fields of a bound hold on this side. Each is one reference and nothing else, so that
/// the field is a plain attribute; the type says what the bound may do with it.

#include <utility>

#include "python_host/call.hpp"
#include "python_host/numbers.hpp"
#include "python_host/ref.hpp"

namespace decision_bounds::python {

/// What may be none: a deadline, a reply.
struct Optional : Ref {
  Optional() = default;
  explicit Optional(Ref ref) : Ref(std::move(ref)) {}

  explicit operator bool() const { return value_of(*this).get() != Py_None; }
  const Ref& operator*() const { return *this; }
};

/// A function that a caller handed in, or none.
struct Function : Optional {
  using Optional::Optional;

  template <typename... Arguments>
  Ref operator()(const Arguments&... arguments) const {
    return call(*this, arguments...);
  }
};

/// Whether the object is a `never`, of this copy of the module or of another.
bool is_never(PyObject* object);

/// A function that returns true where a pass was asked to stop. A `never`, the default, is not
/// called: nobody sees the difference, and it saves 6 % of a reserve+charge pair.
struct StopFunction : Ref {
  StopFunction() = default;
  explicit StopFunction(Ref ref) : Ref(std::move(ref)) {}

  bool operator()() const { return !is_never(get()) && truth(call(*this)); }
};

/// The give-back function of a share, or none. The interpreter's lock makes the exchange one step.
struct GiveBackSlot : Ref {
  GiveBackSlot() = default;
  explicit GiveBackSlot(Ref ref) : Ref(std::move(ref)) {}

  Function exchange_for_none();
};

/// A condition variable; host.locked takes its lock.
struct Condition : Ref {
  Condition() = default;
  explicit Condition(Ref ref) : Ref(std::move(ref)) {}

  /// Sleeps for so many seconds at most. The caller holds the lock.
  void wait(const Ref& timeout) const { call_method("wait", *this, timeout); }
};

/// The set of the features that have had a reply.
struct Features : Ref {
  Features() = default;
  explicit Features(Ref ref) : Ref(std::move(ref)) {}

  bool contains(const Ref& feature) const;
  void insert(const Ref& feature) const;
  bool empty() const { return !truth(*this); }
};

/// A `_Held` record. One of exactly that type is used directly, any other through its methods.
struct HeldRecord : Ref {
  HeldRecord() = default;
  explicit HeldRecord(Ref ref) : Ref(std::move(ref)) {}

  bool admits(const Number& share, const Number& used, const Number& limit) const;
  void take_or_nothing(const Number& share) const;
  void give_back(const Number& share) const;
};

/// A `_Charges` record, used in the same way.
struct ChargesRecord : Ref {
  ChargesRecord() = default;
  explicit ChargesRecord(Ref ref) : Ref(std::move(ref)) {}

  Number bound(const Number& size) const;
  void learn(const Number& size, const Number& charge) const;
};

}  // namespace decision_bounds::python
