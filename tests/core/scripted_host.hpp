#pragma once

/// A world for the bounds in which the test decides what a call sleeps through, and what fails.

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "decision_bounds/native.hpp"

namespace decision_bounds {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::ThrowsMessage;

using native::DecisionBudgetExceeded;
using native::DecisionStopped;
using native::DecisionTimeout;

inline constexpr double unknown = std::numeric_limits<double>::infinity();
inline constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();

/// A failure that is no ordinary error: it does not derive from `std::exception`.
struct Interrupt {};

/// A function of any kind that fails so.
inline constexpr auto interrupt = [](const auto&...) -> double { throw Interrupt(); };

/// What a call did, in order, each step before a space.
using Steps = std::string;

/// The lock of a test with one thread. Its sleep runs a function of the test, in which the calls in
/// flight go on.
struct ScriptedCondition {
  void note(const char* step) const {
    if (steps != nullptr) {
      *steps += std::string(step) + " ";
    }
  }

  Steps* steps = nullptr;  ///< Where they are noted, if anywhere.
  int levels = 0;
  int taken = 0;  ///< How often it was taken anew, but for what is done in a sleep.
  int wake_alls = 0;
  std::vector<double> sleeps;  ///< The seconds that each sleep asked for.
  std::function<void()> asleep = [] {};

  void lock() {
    if (levels++ == 0) {
      ++taken;
      note("lock");
    }
  }
  void unlock() {
    if (--levels == 0) {
      note("unlock");
    }
  }
  void wait(double seconds) {
    EXPECT_GT(levels, 0);
    note("sleep");
    sleeps.push_back(seconds);
    if (sleeps.size() > 100) {
      throw std::logic_error("nothing ends this wait");
    }
    const int held = std::exchange(levels, 0);
    const int own = taken;
    asleep();
    levels = held;
    taken = own;
  }
};

/// A tally that is used with the lock held, where it has one.
struct GuardedTally : native::HeldRecord {
  const ScriptedCondition* lock = nullptr;

  bool admits(double share, auto used, auto limit) const {
    note("admits");
    return HeldRecord::admits(share, used, limit);
  }
  void take_or_nothing(double share) {
    note("take");
    Held::take_or_nothing(share);
  }
  void give_back(double share) {
    note("give_back");
    Held::give_back(share);
  }

 private:
  void note(const char* step) const {
    if (lock != nullptr) {
      EXPECT_GT(lock->levels, 0);
      lock->note(step);
    }
  }
};

/// Numbers, callbacks and errors are those of plain C++.
struct Scripted : native::Native {
  using Condition = ScriptedCondition;
  using Mutex = ScriptedCondition;
  using HeldRecord = GuardedTally;

  bool cost_is_unreadable = false;
  bool share_cannot_be_made = false;
  static inline const ScriptedCondition* noting = nullptr;  ///< Notes its steps, if anything does.

  static bool cached(Reply reply) { return noted("cached", reply.cached); }
  static native::Count input_tokens(Reply reply) { return noted("tokens", reply.input_tokens); }
  double cost(Reply reply) const {
    return noted("cost", cost_is_unreadable) ? interrupt() : reply.cost;
  }
  static native::Summary summary(const auto& budget) {
    return noted("summary", Native::summary(budget));
  }
  void warn(const char* text, double cost, double cap) const {
    Native::warn(text, noted("warn", cost), cap);
  }
  static void notify_all(Condition& changed) {
    EXPECT_GT(changed.levels, 0);
    changed.note("wake");
    ++changed.wake_alls;
  }
  void wait(Condition& changed, const StopFunction& stopping, const Deadline& deadline = {},
            const Clock& clock = {}) const {
    decision_bounds::wait(changed, stopping, deadline, clock, *this);
  }
  static StopFunction stop_function(const RunBudget<Scripted>& budget) {
    return [&budget] { return budget.stopping(); };
  }
  HeldShare make_share(auto& bound, double held) const {
    if (noted("share", share_cannot_be_made)) {
      throw Interrupt();
    }
    return HeldShare([&bound, held, host = *this](const native::PaidReply* reply) {
      bound.give_back(held, reply, host);
    });
  }

 private:
  template <typename Value>
  static Value noted(const char* step, Value value) {
    if (noting != nullptr) {
      noting->note(step);
    }
    return value;
  }
};
static_assert(Host<Scripted>);

/// Whether nothing is held of a bound, not even its lock.
bool is_idle(const auto& changed, const auto& held) {
  return changed.levels == 0 && held.holders == 0 && held.amount == 0.0 && held.unbounded == 0;
}

}  // namespace decision_bounds
