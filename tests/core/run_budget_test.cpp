// The budget of a pass: whom it admits and refuses, what it counts, and what a failure leaves.

#include "scripted_host.hpp"

namespace decision_bounds {

using native::HeldShare;

struct RunBudgetTest : ::testing::Test {
  /// No lock, no slot and no token is held.
  bool idle() const { return budget.in_flight == 0 && is_idle(changed, budget.held_tokens_); }

  bool stop = false;
  RunBudget<Scripted> budget{
      .max_calls = 40, .max_tokens = 900, .should_stop = [this] { return stop; }};
  ScriptedCondition& changed = budget.changed_;
};

TEST_F(RunBudgetTest, AnExhaustedPassRefusesWithItsSummary) {
  budget.calls = 39;
  budget.cache_hits = 3;
  budget.input_tokens = 812;
  budget.cost = 0.1834124;
  budget.reserve();
  EXPECT_THROW(budget.reserve(), DecisionBudgetExceeded) << "a call in flight takes a slot";
  budget.charge({});
  EXPECT_THAT([&] { budget.reserve(); },
              ThrowsMessage<DecisionBudgetExceeded>(
                  "decision budget exhausted: {'calls': 40, 'cache_hits': 3, 'input_tokens': 812, "
                  "'cost_usd': 0.183412, 'max_calls': 40, 'max_tokens': 900}"));
  stop = true;
  EXPECT_THAT([&] { budget.reserve(); },
              ThrowsMessage<DecisionStopped>("the pass was asked to stop"));
  EXPECT_THAT(changed.sleeps, SizeIs(0));
  EXPECT_TRUE(idle());
}

TEST_F(RunBudgetTest, OnlyTokensUsedAndHeldCountAgainstANewCall) {
  budget.input_tokens = 899;
  HeldShare share = budget.hold(500.0);
  EXPECT_EQ(budget.held_tokens_.amount, 500.0);
  share.settle({.input_tokens = 700, .cost = 0.5});
  EXPECT_EQ(budget.summary().text(),
            "{'calls': 1, 'cache_hits': 0, 'input_tokens': 1599, 'cost_usd': 0.5, "
            "'max_calls': 40, 'max_tokens': 900}");
  EXPECT_TRUE(budget.exhausted());
  EXPECT_TRUE(idle());
}

TEST_F(RunBudgetTest, AWaitingCallTakesTheRoomThatAnEndingCallLeaves) {
  HeldShare first = budget.hold(0.0);
  changed.asleep = [&] { first.release(); };
  HeldShare alone = budget.hold(unknown);
  changed.asleep = [&] { alone.settle({.input_tokens = 5}); };
  budget.reserve(1.0);
  EXPECT_THAT(changed.sleeps, SizeIs(2));
  EXPECT_EQ(changed.wake_alls, 2);
  budget.release(1.0);
  EXPECT_TRUE(idle());
  budget.release(1.0);
  EXPECT_TRUE(idle()) << "nothing goes below zero";
}

TEST_F(RunBudgetTest, AWaitEndsInAStopOrBeforeThatInARefusal) {
  HeldShare full = budget.hold(900.0);
  changed.asleep = [&] { stop = true; };
  EXPECT_THROW((void)budget.hold(1.0), DecisionStopped);
  stop = false;
  changed.asleep = [&] {
    full.settle({.input_tokens = 900});
    stop = true;
  };
  EXPECT_THROW((void)budget.hold(1.0), DecisionBudgetExceeded);
  EXPECT_TRUE(idle());
}

TEST_F(RunBudgetTest, ACachedReplyIsOnlyCounted) {
  HeldShare share = budget.hold(300.0);
  share.settle({.cached = true, .input_tokens = 7, .cost = 1.0});
  EXPECT_EQ(budget.cache_hits, 1);
  EXPECT_EQ(budget.calls + budget.input_tokens, 0);
  EXPECT_EQ(budget.in_flight, 1);
  EXPECT_EQ(budget.held_tokens_.amount, 300.0);
  EXPECT_EQ(changed.wake_alls, 0);
}

TEST_F(RunBudgetTest, AFailureLeavesNothingHeld) {
  Scripted host;
  host.share_cannot_be_made = true;
  EXPECT_THROW((void)budget.hold(unknown, host), Interrupt);
  EXPECT_TRUE(idle());
  budget.should_stop = [this] { return changed.levels > 0 && interrupt() > 0; };
  const HeldShare full = budget.hold(900.0);
  EXPECT_THROW((void)budget.hold(1.0), Interrupt) << "asked again before it sleeps";
  EXPECT_EQ(budget.in_flight, 1);
  EXPECT_EQ(changed.levels, 0);
}

TEST_F(RunBudgetTest, AReplyThatCannotBeReadLeavesTheStepsBeforeItDone) {
  Scripted host;
  host.cost_is_unreadable = true;
  EXPECT_THROW((void)budget.hold(300.0, host).settle({.input_tokens = 7, .cost = 1.0}), Interrupt);
  EXPECT_EQ(budget.calls, 1);
  EXPECT_EQ(budget.input_tokens, 7);
  EXPECT_TRUE(idle());
}

}  // namespace decision_bounds
