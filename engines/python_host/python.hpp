#pragma once

/// The bounds in the interpreter: numbers, locks and callbacks are its objects.

#include <span>
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
#include "python_host/failure.hpp"
#include "python_host/fields.hpp"
#include "python_host/give_back.hpp"
#include "python_host/instance.hpp"
#include "python_host/numbers.hpp"
#include "python_host/ref.hpp"
#include "python_host/state.hpp"

namespace decision_bounds::python {

/// The host of the interpreter. Every operation runs with the interpreter's own lock held.
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

  static const Number& amount(const Number& number) { return number; }
  static bool truth(const Number& value) { return python::truth(value); }
  static bool truth(const Ref& value) { return python::truth(value); }
  static bool is_infinite(const Number& number) { return python::is_infinite(number); }
  /// The host's `float()`, which reads text as well.
  static Number to_amount(const Ref& answer) {
    return Ref::checked(host_call([&] { return PyNumber_Float(answer.get()); }));
  }
  Number rounded(const Ref& cost) const { return call(state->round, cost, state->cost_decimals); }
  Number poll_s() const { return state->global(Name::poll_s); }

  bool cached(const Ref& reply) const { return truth(property(reply, state->name(Name::cached))); }
  Number input_tokens(const Ref& reply) const {
    return property(reply, state->name(Name::input_tokens));
  }
  Number cost(const Ref& reply) const { return property(reply, state->name(Name::cost)); }

  /// Runs the block as a `with` statement of the lock does. Returns None where the lock swallows
  /// the block's error.
  auto locked(const Ref& lock, const auto& block) const -> decltype(block());
  void notify_all(const Ref& changed) const { state->locks.notify_all(changed); }

  /// Calls what the module binds to `_wait` at this moment.
  void wait(const Ref& changed, const Ref& stopping) const;
  void wait(const Ref& changed, const Ref& stopping, const Ref& deadline, const Ref& clock) const;
  /// The bound method `stopping` of a budget.
  Ref stop_function(const RunBudget<Python>& budget) const;

  /// Calls what the module binds to `Share`, with a give-back function of the bound.
  template <typename Bound>
  Ref make_share(const Bound& bound, const Ref& held) const;

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
  static Ref property(const Ref& reply, PyObject* name) {
    return Ref::checked(host_call([&] { return PyObject_GetAttr(reply.get(), name); }));
  }
  Ref share_of(Ref give_back) const;
};

template <>
std::span<const Field> fields_of<Share<GiveBackSlot>>();
template <>
std::span<const Field> fields_of<Held<Python>>();
template <>
std::span<const Field> fields_of<Charges<Python>>();
template <>
std::span<const Field> fields_of<RequestRates<Python>>();
template <>
std::span<const Field> fields_of<RunBudget<Python>>();
template <>
std::span<const Field> fields_of<DailySpend<Python>>();

auto Python::locked(const Ref& lock, const auto& block) const -> decltype(block()) {
  using Result = decltype(block());
  Entered entered = state->locks.enter(lock);
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
Ref Python::make_share(const Bound& bound, const Ref& held) const {
  return share_of(make_give_back(
      state, object_of(bound), held,
      [](State* module_state, PyObject* owner, const Ref& amount, const Optional& reply) {
        Instance<Bound>::of(owner)->bound.give_back(amount, reply, Python{module_state});
      }));
}

}  // namespace decision_bounds::python

namespace decision_bounds {

static_assert(Host<python::Python>);

extern template struct Held<python::Python>;
extern template struct Charges<python::Python>;
extern template struct RequestRates<python::Python>;
extern template struct RunBudget<python::Python>;
extern template struct DailySpend<python::Python>;

}  // namespace decision_bounds
