#pragma once

/// The bounds in plain C++: `double` and `int64_t`, exceptions, and a share that a scope gives
/// back.
///
///     native::RunBudget budget{.max_calls = 40, .max_tokens = 90'000};
///     native::HeldShare share = budget.hold(1'500.0);   // may wait, or throw a DecisionError
///     share.settle(call_endpoint());                    // without it, the scope gives it back

#include <cmath>
#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>

#include "decision_bounds/charges.hpp"
#include "decision_bounds/daily_spend.hpp"
#include "decision_bounds/errors.hpp"
#include "decision_bounds/held.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/native_condition.hpp"
#include "decision_bounds/native_share.hpp"
#include "decision_bounds/request_rates.hpp"
#include "decision_bounds/run_budget.hpp"
#include "decision_bounds/wait.hpp"

namespace decision_bounds {

/// A decision call failed. Its text is the message.
struct DecisionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// Another call would exceed a `RunBudget` or the daily cost cap.
struct DecisionBudgetExceeded : DecisionError {
  using DecisionError::DecisionError;
};
/// The endpoint refuses requests; for the client's own use.
struct DecisionUnavailable : DecisionError {
  using DecisionError::DecisionError;
};
/// A call ran out of its deadline while it waited.
struct DecisionTimeout : DecisionError {
  using DecisionError::DecisionError;
};
/// The pass that the call belongs to has been asked to stop.
struct DecisionStopped : DecisionError {
  using DecisionError::DecisionError;
};

namespace native {

/// A function without arguments that says whether a pass was asked to stop. Made without one, it is
/// a stop that never comes.
class StopFunction {
 public:
  StopFunction() = default;
  template <typename Function>
  requires std::predicate<Function> StopFunction(Function function)
      : function_(std::move(function)) {}

  bool operator()() const { return function_ && function_(); }

 private:
  std::function<bool()> function_;
};

/// What a pass has used against its limits.
struct Summary {
  std::int64_t calls{};
  std::int64_t cache_hits{};
  std::int64_t input_tokens{};
  double cost_usd{};
  std::int64_t max_calls{};
  std::int64_t max_tokens{};

  /// The mapping as text: {'calls': 40, 'cache_hits': 3, ...}.
  std::string text() const;
};

/// Where the two warnings go: the cap is reached, and the ledger could not be read.
class Log {
 public:
  virtual ~Log() = default;
  virtual void warning(const std::string& text) = 0;
};

/// The host of plain C++. The operations take one as their last argument and do with a default one,
/// which logs nothing. The log must outlive the shares that were made with it.
struct Native {
  using Count = std::int64_t;
  using Amount = double;
  using Flag = bool;
  using Text = std::string;
  using Reply = const PaidReply&;
  using MaybeReply = const PaidReply*;
  using StopFunction = native::StopFunction;
  using DateFunction = std::function<std::string()>;
  using Ledger = std::function<double(const std::string& day)>;
  using BoundFunction = std::function<double()>;
  using Clock = std::function<double()>;
  using Deadline = std::optional<double>;
  using GiveBackSlot = native::GiveBackSlot;
  using HeldShare = native::HeldShare;
  using Summary = native::Summary;
  using Condition = native::Condition;
  using Mutex = std::mutex;
  using Features = std::unordered_set<std::string>;
  using HeldRecord = Held<Native>;
  using ChargesRecord = Charges<Native>;

  Log* log = nullptr;

  static double amount(double value) { return value; }
  static double amount(Count count) { return static_cast<double>(count); }
  static double to_amount(double value) { return value; }
  static bool truth(Count count) { return count != 0; }
  static bool is_infinite(double value) { return std::isinf(value); }
  static double poll_s() { return poll_interval_s; }

  static bool cached(Reply reply) { return reply.cached; }
  static Count input_tokens(Reply reply) { return reply.input_tokens; }
  static double cost(Reply reply) { return reply.cost; }

  static auto locked(auto& lock, const auto& block) {
    const std::lock_guard held(lock);
    return block();
  }
  static void notify_all(Condition& changed) { changed.notify_all(); }
  void wait(Condition& changed, const StopFunction& stopping, const Deadline& deadline = {},
            const Clock& clock = {}) const;
  static StopFunction stop_function(const RunBudget<Native>& budget);

  /// The share keeps a reference to its bound, which must outlive it.
  HeldShare make_share(auto& bound, double held) const {
    return HeldShare([&bound, held, host = *this](const PaidReply* reply) {
      bound.give_back(held, reply, host);
    });
  }

  static auto on_failure(const auto& block, const auto& undo) {
    try {
      return block();
    } catch (...) {
      undo();
      throw;
    }
  }
  /// What does not derive from `std::exception` is no ordinary error, and passes through.
  static void attempt(const auto& block, const auto& failed) {
    try {
      block();
    } catch (const std::exception& error) {
      failed(error);
    }
  }

  static Summary summary(const RunBudget<Native>& budget);
  [[noreturn]] static void refuse(Refusal refusal, const std::string& text);
  [[noreturn]] static void refuse(Refusal refusal, const char* text, const Summary& summary);
  [[noreturn]] static void refuse(Refusal refusal, const char* text, double cost, double cap);
  void warn(const char* text, double cost, double cap) const;
  void warn_of_error(const char* text, const std::string& day, const std::exception& error) const;
};

using RequestRates = decision_bounds::RequestRates<Native>;
using RunBudget = decision_bounds::RunBudget<Native>;
using DailySpend = decision_bounds::DailySpend<Native>;

}  // namespace native

static_assert(Host<native::Native>);

extern template struct Held<native::Native>;
extern template struct Charges<native::Native>;
extern template struct RequestRates<native::Native>;
extern template struct RunBudget<native::Native>;
extern template struct DailySpend<native::Native>;

}  // namespace decision_bounds
