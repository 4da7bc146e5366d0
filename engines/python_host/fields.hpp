#pragma once

/// What the fields of a bound hold on this side. Each can be read, set and deleted as a plain
/// attribute; the type says what the bound may do with it.

#include <array>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "decision_bounds/charges.hpp"
#include "decision_bounds/held.hpp"
#include "python_host/instance.hpp"
#include "python_host/interpreter.hpp"
#include "python_host/number.hpp"

namespace decision_bounds::python {

struct Python;
struct State;

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

/// Whether the object (or null) is a `never`, of this copy of the module or of another.
bool is_never(PyObject* object);

/// A function that returns true where a pass was asked to stop. A `never`, the default, is not
/// called: nobody sees the difference, and it saves 6 % of a reserve+charge pair.
struct StopFunction : Ref {
  StopFunction() = default;
  explicit StopFunction(Ref ref) : Ref(std::move(ref)) {}

  bool operator()() const { return !is_never(get()) && truth(call(*this)); }
};

/// How a share of one kind of bound is given back.
struct Ending {
  /// Ends a call of the bound in `owner` that held `amount`, with the paid reply or none.
  void (*end_call)(State* state, PyObject* owner, const Number& amount, const Optional& reply);
  /// The same as a function of the interpreter, over the tuple of module, owner and amount.
  PyMethodDef function;
};

/// What a share gives back: a function that was handed in, or none; or, in a share that a bound has
/// made, the bound and the amount that the call holds. A function is made of these only where
/// somebody reads `_give_back`.
class GiveBackSlot {
 public:
  GiveBackSlot() = default;
  explicit GiveBackSlot(Ref function) : object_(std::move(function)) {}
  GiveBackSlot(State* state, Ref owner, Number amount, Ending* ending)
      : object_(std::move(owner)), amount_(std::move(amount)), state_(state), ending_(ending) {}
  GiveBackSlot(const GiveBackSlot&) = default;
  GiveBackSlot(GiveBackSlot&&) noexcept = default;
  ~GiveBackSlot() = default;

  /// The old objects go last, when all of the new ones stand.
  GiveBackSlot& operator=(GiveBackSlot other) noexcept {
    std::swap(state_, other.state_);
    std::swap(ending_, other.ending_);
    std::swap(amount_, other.amount_);
    std::swap(object_, other.object_);
    return *this;
  }

  /// Takes out what is to be called, once. The global lock, or the critical section of the share,
  /// makes this one step: it runs no code. Raises `AttributeError` where nothing is set.
  GiveBackSlot exchange_for_none();

  explicit operator bool() const { return object_.get() != Py_None; }
  void operator()(const Optional& reply) const;

  /// The function, borrowed: the slot keeps it. Null where nothing is set.
  PyObject* kept_function();

  /// What the slot holds, borrowed.
  std::array<PyObject*, 2> objects() const { return {object_.get(), amount_.object()}; }

 private:
  Ref object_;  ///< The function, or the bound that made the share.
  Number amount_;
  State* state_ = nullptr;
  Ending* ending_ = nullptr;  ///< Null where `object_` is the function.
};

/// A condition variable; `locked` takes its lock. What locks.cpp has found in the condition's
/// `__dict__` is kept beside it, borrowed, for as long as the `__dict__` has the same version tag.
struct Condition {
  Condition() = default;
  explicit Condition(Ref ref) : object(std::move(ref)) {}

  operator const Ref&() const { return object; }
  /// Sleeps for so many seconds at most. The caller holds the lock.
  void wait(const Ref& timeout) const { call_method(interned("wait"), object, timeout); }

  Ref object;
  std::uint64_t dict_version = 0;
  PyObject* lock = nullptr;
  PyObject* waiters = nullptr;
};

/// The set of the features that have had a reply.
struct Features : Ref {
  Features() = default;
  explicit Features(Ref ref) : Ref(std::move(ref)) {}

  bool contains(const Ref& feature) const;
  void insert(const Ref& feature) const;
  bool empty() const { return !truth(static_cast<const Ref&>(*this)); }
};

/// A record that a bound owns. One of exactly the type of `Record` is used directly, any other
/// through its methods. It is held meanwhile: an operator of a number can rebind the field.
template <typename Record>
struct RecordField : Ref {
  RecordField() = default;
  explicit RecordField(Ref ref) : Ref(std::move(ref)) {}

  template <auto operation>
  auto use(const char* method, const auto&... arguments) const {
    using Result = decltype((std::declval<Record&>().*operation)(arguments...));
    const Ref record = value_of(*this);
    if (auto* exact = exact_bound<Record>(record.get())) {
      // The arguments may be fields of the owner.
      const auto use_exact = [&](const auto&... steady_arguments) {
        const CriticalSection section(record.get());
        return (exact->*operation)(steady_arguments...);
      };
      return use_exact(steady(arguments)...);
    }
    Ref answer = call_method(interned(method), record, Ref(arguments)...);
    if constexpr (std::is_same_v<Result, bool>) {
      return truth(answer);
    } else if constexpr (!std::is_void_v<Result>) {
      return Result(std::move(answer));
    }
  }
};

struct HeldRecord : RecordField<Held<Python>> {
  using RecordField::RecordField;

  bool admits(const Number& share, const Number& used, const Number& limit) const;
  void take_or_nothing(const Number& share) const;
  void give_back(const Number& share) const;
};

struct ChargesRecord : RecordField<Charges<Python>> {
  using RecordField::RecordField;

  Number bound(const Number& size) const;
  void learn(const Number& size, const Number& charge) const;
};

/// The object that a field holds as an attribute, borrowed: the field keeps it. Null where the
/// field is not set.
inline PyObject* kept_object(const Ref& field) { return field.get(); }
inline PyObject* kept_object(const Condition& field) { return field.object.get(); }
inline PyObject* kept_object(Number& field) {
  return field.is_set() ? field.kept_object() : nullptr;
}
inline PyObject* kept_object(GiveBackSlot& field) { return field.kept_function(); }

/// The objects in a field that the cycle collector is to see, borrowed, some of them null.
inline std::array<PyObject*, 1> objects_in(const Ref& field) { return {field.get()}; }
inline std::array<PyObject*, 1> objects_in(const Condition& field) { return {field.object.get()}; }
inline std::array<PyObject*, 1> objects_in(const Number& field) { return {field.object()}; }
inline std::array<PyObject*, 2> objects_in(const GiveBackSlot& field) { return field.objects(); }

}  // namespace decision_bounds::python
