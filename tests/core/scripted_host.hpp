#pragma once

/// A world for the bounds in which the test decides what a call sleeps through, and what fails.

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <stdexcept>
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

/// The lock of a test with one thread. Its sleep runs a function of the test, in which the calls in
/// flight go on.
struct ScriptedCondition {
  int levels = 0;
  int taken = 0;  ///< How often it was taken anew, but for what is done in a sleep.
  int wake_alls = 0;
  std::vector<double> sleeps;  ///< The seconds that each sleep asked for.
  std::function<void()> asleep = [] {};

  void lock() { taken += levels++ == 0 ? 1 : 0; }
  void unlock() { --levels; }
  void wait(double seconds) {
    EXPECT_GT(levels, 0);
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

/// A lock of a test with one thread: how often it was taken.
struct CountedMutex {
  int taken = 0;
  bool held = false;

  void lock() {
    ++taken;
    held = true;
  }
  void unlock() { held = false; }
};

/// A tally that is changed with the lock held, where it has one.
struct GuardedTally : native::HeldRecord {
  const ScriptedCondition* lock = nullptr;

  void take_or_nothing(double share) {
    EXPECT_TRUE(lock == nullptr || lock->levels > 0);
    Held::take_or_nothing(share);
  }
  void give_back(double share) {
    EXPECT_TRUE(lock == nullptr || lock->levels > 0);
    Held::give_back(share);
  }
};

/// Numbers, callbacks and errors are those of plain C++.
struct Scripted : native::Native {
  using Condition = ScriptedCondition;
  using Mutex = CountedMutex;
  using HeldRecord = GuardedTally;

  bool cost_is_unreadable = false;
  bool share_cannot_be_made = false;

  double cost(Reply reply) const { return cost_is_unreadable ? interrupt() : reply.cost; }
  static void notify_all(Condition& changed) {
    EXPECT_GT(changed.levels, 0);
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
    if (share_cannot_be_made) {
      throw Interrupt();
    }
    return HeldShare([&bound, held, host = *this](const native::PaidReply* reply) {
      bound.give_back(held, reply, host);
    });
  }
};
static_assert(Host<Scripted>);

/// Whether nothing is held of a bound, not even its lock.
bool is_idle(const auto& changed, const auto& held) {
  return changed.levels == 0 && held.holders == 0 && held.amount == 0.0 && held.unbounded == 0;
}

}  // namespace decision_bounds
