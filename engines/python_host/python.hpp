#pragma once

/// The bounds in the interpreter: numbers, locks and callbacks are its objects.

#include <type_traits>

#include "decision_bounds/charges.hpp"
#include "decision_bounds/daily_spend.hpp"
#include "decision_bounds/errors.hpp"
#include "decision_bounds/held.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/request_rates.hpp"
#include "decision_bounds/run_budget.hpp"
#include "decision_bounds/share.hpp"
#include "decision_bounds/wait.hpp"
#include "python_host/error.hpp"
#include "python_host/fields.hpp"
#include "python_host/instance.hpp"
#include "python_host/interpreter.hpp"
#include "python_host/number.hpp"
#include "python_host/state.hpp"

namespace decision_bounds::python {

/// The host of the interpreter. Every operation runs with the interpreter's global lock held, or in
/// the critical section of the object that it was called on.
struct Python {
  using Count = Number;
  using Amount = Number;
  using Flag = Ref;
  using Text = Ref;
  using Reply = const Ref&;
  using MaybeReply = const Optional&;
  using StopFunction = python::StopFunction;
  using DateFunction = Function;
  using Ledger = Function;
  using BoundFunction = Function;
  using Clock = Function;
  using Deadline = Optional;
  using GiveBackSlot = python::GiveBackSlot;
  using HeldShare = Ref;
  using Summary = Ref;
  using Condition = python::Condition;
  using Mutex = Ref;
  using Features = python::Features;
  using HeldRecord = python::HeldRecord;
  using ChargesRecord = python::ChargesRecord;

  State* state = nullptr;
  /// Given where a share is settled, which can be done once: what interrupts the taking of the lock
  /// is raised when the share has been given back.
  Delayed* interrupt = nullptr;
  /// Of the object that an operation was called on. It is given up where the operation waits.
  CriticalSection* section = nullptr;

  static const Number& amount(const Number& number) { return number; }
  static bool truth(const Number& value) { return python::truth(value); }
  static bool truth(const Ref& value) { return python::truth(value); }
  static bool is_infinite(const Number& number) { return python::is_infinite(number); }
  /// The host's `float()`, which reads text as well.
  static Number to_amount(const Ref& answer) { return checked(PyNumber_Float, answer); }
  Number poll_s() const { return state->global(state->names.poll_s); }

  bool cached(const Ref& reply) const { return truth(attribute(reply, state->names.cached)); }
  Number input_tokens(const Ref& reply) const {
    return attribute(reply, state->names.input_tokens);
  }
  Number cost(const Ref& reply) const { return attribute(reply, state->names.cost); }

  /// Runs the block as a `with` statement of the lock does. Where the lock swallows the block's
  /// error, returns None, or false for a block that answers a truth value.
  auto locked(auto& lock, const auto& block) const -> decltype(block());
  void notify_all(Condition& changed) const { state->locks.notify_all(changed); }

  /// Calls what the module binds to `_wait` at this moment.
  void wait(const Ref& changed, const Ref& stopping) const;
  void wait(const Ref& changed, const Ref& stopping, const Ref& deadline, const Ref& clock) const;
  /// The bound method `stopping` of a budget.
  Ref stop_function(const RunBudget<Python>& budget) const;

  /// Calls what the module binds to `Share`.
  template <typename Bound>
  Ref make_share(const Bound& bound, const Number& held) const;

  static auto on_failure(const auto& block, const auto& undo) {
    return python::on_failure(block, undo);
  }
  static void attempt(const auto& block, const auto& failed) { python::attempt(block, failed); }

  Ref summary(const RunBudget<Python>& budget) const;
  [[noreturn]] void refuse(Refusal refusal, const char* text) const;
  [[noreturn]] void refuse(Refusal refusal, const char* text, const Ref& summary) const;
  [[noreturn]] void refuse(Refusal refusal, const char* text, const Ref& cost,
                           const Ref& cap) const;
  /// Warnings go to what the module binds to `logger` at this moment.
  void warn(const char* text, const Ref& cost, const Ref& cap) const;
  void warn_of_error(const char* text, const Ref& day, const Ref& error) const;

 private:
  Ref share_of(GiveBackSlot give_back) const;
  /// The host's `round(cost, 6)`.
  Ref rounded(const Number& cost) const;
};

// Each is defined in the file of its class.
extern template struct Instance<Share<GiveBackSlot>>;
extern template struct Instance<Held<Python>>;
extern template struct Instance<Charges<Python>>;
extern template struct Instance<RequestRates<Python>>;
extern template struct Instance<RunBudget<Python>>;
extern template struct Instance<DailySpend<Python>>;

inline bool HeldRecord::admits(const Number& share, const Number& used, const Number& limit) const {
  return use<&Held<Python>::admits>("admits", share, used, limit);
}

/// The `take` of a record of another type is undone where it fails, if the record is derived.
inline void HeldRecord::take_or_nothing(const Number& share) const {
  auto* derived = get() == nullptr ? nullptr : stored_bound<Held<Python>>(get());
  if (derived == nullptr || exact_bound<Held<Python>>(get()) != nullptr) {
    return use<&Held<Python>::take_or_nothing>("take", share);
  }
  const Ref record = *this;
  const Held<Python> before = [&] {
    const CriticalSection section(record.get());
    return *derived;
  }();
  on_failure([&] { use<&Held<Python>::take>("take", share); },
             [&] {
               const CriticalSection section(record.get());
               *derived = before;
             });
}

inline void HeldRecord::give_back(const Number& share) const {
  use<&Held<Python>::give_back>("give_back", share);
}

inline Number ChargesRecord::bound(const Number& size) const {
  return use<&Charges<Python>::bound>("bound", size);
}

inline void ChargesRecord::learn(const Number& size, const Number& charge) const {
  use<&Charges<Python>::learn>("learn", size, charge);
}

auto Python::locked(auto& lock, const auto& block) const -> decltype(block()) {
  using Result = decltype(block());
  Entered entered = state->locks.enter(lock, interrupt, section);
  try {
    if constexpr (!std::is_void_v<Result>) {
      Result result = block();
      entered.leave();
      return result;
    } else {
      block();
      entered.leave();
      return;
    }
  } catch (const Raised&) {
  }
  if (entered.is_left() || !entered.leave_failed()) {
    throw Raised{};
  }
  if constexpr (std::is_constructible_v<Result, Ref>) {
    return Result(Ref::none());
  } else {
    return Result();
  }
}

template <typename Bound>
void end_call(State* state, PyObject* owner, const Number& amount, const Optional& reply) {
  Delayed interrupt;
  try {
    CriticalSection section(owner);
    Instance<Bound>::of(owner)->bound.give_back(amount, reply, Python{state, &interrupt, &section});
  } catch (const Raised&) {
  }
  interrupt.raise();
}

/// The give-back function of a share as an object of the host: `self` is its tuple.
template <typename Bound>
PyObject* call_give_back(PyObject* self, PyObject* arguments, PyObject* keywords) {
  return entry_of_operation([&] {
    const char* const names[] = {"reply", nullptr};
    PyObject* reply = nullptr;
    if (PyArg_ParseTupleAndKeywords(arguments, keywords, "O:give_back", const_cast<char**>(names),
                                    &reply) == 0) {
      throw Raised{};
    }
    end_call<Bound>(State::of(PyTuple_GET_ITEM(self, 0)), PyTuple_GET_ITEM(self, 1),
                    Ref::to(PyTuple_GET_ITEM(self, 2)), Optional(Ref::to(reply)));
    return Ref::none().release();
  });
}

template <typename Bound>
inline Ending ending_of = {
    end_call<Bound>,
    {"give_back",
     reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(call_give_back<Bound>)),
     METH_VARARGS | METH_KEYWORDS, "Give back what one call holds of one bound."}};

template <typename Bound>
Ref Python::make_share(const Bound& bound, const Number& held) const {
  return share_of(GiveBackSlot(state, Ref::to(object_of(bound)), held, &ending_of<Bound>));
}

}  // namespace decision_bounds::python

namespace decision_bounds {

static_assert(Host<python::Python>);

}  // namespace decision_bounds
