#pragma once

/// What the walks of the bounds share: random choices, and a model that keeps only what the rules
/// speak of, the calls in flight and what those that ended used.

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <list>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds {

using native::HeldShare;
using native::PaidReply;

/// Random choices; the same for the same seed with every compiler.
class Dice {
 public:
  explicit Dice(unsigned seed) : engine_(seed) {}

  int below(int count) { return static_cast<int>(engine_() % static_cast<unsigned>(count)); }
  bool one_in(int count) { return below(count) == 0; }

  /// A multiple of 1/8 up to 4, so that every sum is exact.
  double amount() { return below(33) / 8.0; }
  double share() { return one_in(5) ? unknown : amount(); }
  PaidReply reply() { return {.cached = one_in(6), .input_tokens = below(5), .cost = amount()}; }

 private:
  std::mt19937 engine_;
};

/// What the calls in flight hold of one bound: the model of a tally.
struct InFlight {
  std::vector<double> shares;

  double amount() const {
    double sum = 0.0;
    for (const double share : shares) {
      sum += share == unknown ? 0.0 : share;
    }
    return sum;
  }
  bool someone_is_alone() const { return std::count(shares.begin(), shares.end(), unknown) > 0; }
  bool has_room(double share, double used, double limit) const {
    return !someone_is_alone() && (share != unknown || shares.empty()) && used + amount() < limit;
  }
  void end(double share) { shares.erase(std::find(shares.begin(), shares.end(), share)); }
  bool is_held_as(const Held<native::Native>& held) const {
    return held.holders == static_cast<std::int64_t>(shares.size()) && held.amount == amount() &&
           (held.unbounded != 0) == someone_is_alone();
  }
};

enum class Answer { admitted, refused, stopped, late, failed };

/// How a call for admission ends.
Answer answer_of(const auto& call) {
  try {
    call();
    return Answer::admitted;
  } catch (const DecisionBudgetExceeded&) {
    return Answer::refused;
  } catch (const DecisionStopped&) {
    return Answer::stopped;
  } catch (const DecisionTimeout&) {
    return Answer::late;
  } catch (const Interrupt&) {
    return Answer::failed;
  }
}

/// What both walks have: the calls that were admitted, and what is done while one sleeps.
///
/// Each operation takes the lock once and keeps it: so calls on threads of their own can do no more
/// than these, which do one operation after the other and anything where one sleeps.
struct Walk : ::testing::Test {
  struct Admitted {
    HeldShare share;
    double amount;
    bool is_readable;  ///< Whether what its reply cost can be read.
    bool ended = false;
  };

  /// What the end of a call does besides giving back.
  struct Effect {
    bool wakes = true;
    bool fails = false;
  };

  virtual ScriptedCondition& changed() = 0;
  virtual Effect count(const PaidReply& reply, const Admitted& call) = 0;

  /// Ends a call that was admitted, or one that has ended before.
  void end_one() {
    if (calls.empty()) {
      return;
    }
    Admitted& call = *std::next(calls.begin(), dice.below(static_cast<int>(calls.size())));
    const bool first = !std::exchange(call.ended, true);
    const std::optional reply = dice.one_in(3) ? std::nullopt : std::optional(dice.reply());
    const int taken = changed().taken;
    const int wake_alls = changed().wake_alls;
    const Answer answer =
        answer_of([&] { reply ? call.share.settle(*reply) : call.share.release(); });
    const int took = changed().taken - taken;
    const int woke = changed().wake_alls - wake_alls;
    Effect effect{.wakes = first};
    if (first) {
      effect = reply ? count(*reply, call) : effect;
      in_flight.end(call.amount);
    }
    EXPECT_EQ(answer == Answer::failed, effect.fails);
    EXPECT_EQ(woke, effect.wakes ? 1 : 0);
    EXPECT_EQ(took, first ? 1 : 0);
  }

  /// Lets what the next call needs of its host fail, or not.
  void choose_faults() {
    host.cost_is_unreadable = dice.one_in(8);
    host.share_cannot_be_made = dice.one_in(8);
  }
  Answer answer_of_admission() const {
    return host.share_cannot_be_made ? Answer::failed : Answer::admitted;
  }
  void admitted(HeldShare share, double amount) {
    in_flight.shares.push_back(amount);
    calls.push_back({std::move(share), amount, !host.cost_is_unreadable});
  }

  Dice dice{2024};
  Scripted host;
  std::list<Admitted> calls;
  InFlight in_flight;
  bool stop = false;
  std::optional<Answer> expected;  ///< None: the call sleeps.
};

}  // namespace decision_bounds
