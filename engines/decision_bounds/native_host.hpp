#pragma once

/// The host of plain C++: its numbers, functions, locks and errors, as the bounds use them.

#include <cmath>
#include <concepts>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "decision_bounds/charges.hpp"
#include "decision_bounds/errors.hpp"
#include "decision_bounds/held.hpp"
#include "decision_bounds/host.hpp"
#include "decision_bounds/native_condition.hpp"
#include "decision_bounds/native_count.hpp"
#include "decision_bounds/native_log.hpp"
#include "decision_bounds/native_reply.hpp"
#include "decision_bounds/native_share.hpp"
#include "decision_bounds/native_summary.hpp"
#include "decision_bounds/run_budget.hpp"
#include "decision_bounds/text.hpp"
#include "decision_bounds/wait.hpp"

namespace decision_bounds::native {

struct HeldRecord;

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

/// The host. A default one logs nothing. A log must outlive the shares that were made with it. What
/// is cold is kept out of the way of a call that is admitted.
struct Native {
  using Count = native::Count;
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
  using HeldRecord = native::HeldRecord;
  using ChargesRecord = Charges<Native>;

  Log* log = nullptr;

  static double amount(double value) { return value; }
  static double amount(Count count) { return static_cast<double>(count); }
  static double to_amount(double value) { return value; }
  static bool truth(Count count) { return count != 0; }
  static bool truth(Flag flag) { return flag; }
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
  [[gnu::cold]] void wait(Condition& changed, const StopFunction& stopping,
                          const Deadline& deadline = {}, const Clock& clock = {}) const;
  static StopFunction stop_function(const RunBudget<Native>& budget);

  /// The share keeps a reference to its bound and a copy of this host.
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

  static Summary summary(const auto& budget) {
    const auto number = [](Count count) { return static_cast<std::int64_t>(count); };
    return {number(budget.calls),        number(budget.cache_hits),
            number(budget.input_tokens), rounded(budget.cost, cost_decimals),
            number(budget.max_calls),    number(budget.max_tokens)};
  }
  [[noreturn, gnu::cold]] static void refuse(Refusal refusal, const std::string& text);
  [[noreturn, gnu::cold]] static void refuse(Refusal refusal, const char* text,
                                             const Summary& summary);
  [[noreturn, gnu::cold]] static void refuse(Refusal refusal, const char* text, double cost,
                                             double cap);
  [[gnu::cold]] void warn(const char* text, double cost, double cap) const;
  [[gnu::cold]] void warn_of_error(const char* text, const std::string& day,
                                   const std::exception& error) const;
};

/// The tally of a bound. Whole numbers are compared with what is held as they are, however large: a
/// `double` would round them from 2 to the 53rd on.
struct HeldRecord : Held<Native> {
  using Held::admits;
  bool admits(double share, Count used, Count limit) const {
    return admits(share, 0.0, least_double_from(limit - used));
  }
  Holdings holdings() const;
};

static_assert(Host<Native>);

}  // namespace decision_bounds::native

namespace decision_bounds {

extern template struct Held<native::Native>;
extern template struct Charges<native::Native>;

}  // namespace decision_bounds
