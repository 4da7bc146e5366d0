// What each operation does, step by step: under the lock or not, and in which order.

#include <utility>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds {

using native::HeldShare;

/// The bounds, with a host that notes each step.
struct StepsTest : ::testing::Test {
  StepsTest() {
    budget.held_tokens_.lock = &budget.changed_;
    account.held_.lock = &account.changed_;
    Scripted::noting = &noting;
    noting.steps = budget.changed_.steps = account.changed_.steps = rates.lock_.steps = &steps;
  }
  ~StepsTest() override { Scripted::noting = nullptr; }

  template <typename Value>
  Value noted(const char* step, Value value) const {
    noting.note(step);
    return value;
  }
  HeldShare admit(double usd) {
    return account.admit([this, usd] { return noted("bound", usd); }, {}, {}, {}, host);
  }

  /// The steps of a call that may end as it likes.
  Steps of(const auto& call) {
    steps.clear();
    try {
      call();
    } catch (const Interrupt&) {
      steps += "interrupt ";
    } catch (const native::DecisionError&) {
      steps += "refused ";
    }
    return steps;
  }

  Steps steps;
  ScriptedCondition noting;
  Scripted host;
  RunBudget<Scripted> budget{
      .max_calls = 9, .max_tokens = 9, .should_stop = [this] { return noted("stop", stop); }};
  bool stop = false;
  DailySpend<Scripted> account{
      .cap = 9.0,
      .today = [this] { return noted("date", date); },
      .ledger = [this](const std::string&) { return noted("ledger", 1.0); }};
  std::string date = "2024-02-29";
  RequestRates<Scripted> rates;
};

TEST_F(StepsTest, OfAPass) {
  EXPECT_EQ(of([&] { budget.reserve(1.0, host); }), "stop lock admits take unlock ");
  EXPECT_EQ(of([&] { budget.release(1.0, host); }), "lock give_back wake unlock ");
  EXPECT_EQ(of([&] { budget.charge({.input_tokens = 1}, 0.0, host); }),
            "lock cached give_back tokens cost wake unlock ");
  EXPECT_EQ(of([&] { budget.charge({.cached = true}, 0.0, host); }), "lock cached unlock ");
  EXPECT_EQ(of([&] { (void)budget.exhausted(host); }), "lock unlock ");
  EXPECT_EQ(of([&] { (void)budget.summary(host); }), "lock summary unlock ");
  HeldShare full;
  EXPECT_EQ(of([&] { full = budget.hold(unknown, host); }), "stop lock admits take unlock share ");
  budget.changed_.asleep = [&] { full.release(); };
  EXPECT_EQ(of([&] { budget.reserve(7.0, host); }),
            "stop lock admits stop sleep lock give_back wake unlock admits take unlock ");
  host.share_cannot_be_made = true;
  EXPECT_EQ(of([&] { (void)budget.hold(1.0, host); }),
            "stop lock admits take unlock share lock give_back wake unlock interrupt ");
  EXPECT_EQ(budget.held_tokens_.amount, 7.0);
  budget.max_calls = 0;
  EXPECT_EQ(of([&] { budget.reserve(1.0, host); }), "stop lock summary unlock refused ");
  stop = true;
  EXPECT_EQ(of([&] { budget.reserve(1.0, host); }), "stop refused ");
}

TEST_F(StepsTest, OfADay) {
  EXPECT_EQ(of([&] { (void)account.spent(host); }), "lock date ledger unlock ");
  EXPECT_EQ(of([&] { (void)account.spent(host); }), "lock date unlock ");
  HeldShare share;
  EXPECT_EQ(of([&] { share = admit(1.0); }), "lock date bound admits take share unlock ");
  EXPECT_EQ(of([&] { share.release(); }), "lock give_back wake unlock ");
  share = admit(1.0);
  EXPECT_EQ(of([&] { share.settle({.cost = 1.0}); }), "lock date cost give_back wake unlock ");
  EXPECT_EQ(of([&] { account.charge({.cost = 1.0}, host); }), "lock date cost wake unlock ");
  host.share_cannot_be_made = true;
  EXPECT_EQ(of([&] { (void)admit(1.0); }),
            "lock date bound admits take share give_back unlock interrupt ");
  host.share_cannot_be_made = false;
  share = admit(1.0);
  date = "2024-03-01";
  EXPECT_EQ(of([&] { share.settle({.cost = 9.0}); }),
            "lock date ledger cost give_back wake unlock ");
  EXPECT_EQ(of([&] { (void)admit(1.0); }), "lock date unlock warn refused ");
  EXPECT_EQ(of([&] { (void)admit(1.0); }), "lock date unlock refused ");
}

TEST_F(StepsTest, OfTheRates) {
  EXPECT_EQ(of([&] { rates.learn(10, "rank", {}, host); }), "lock cost tokens unlock ");
  EXPECT_EQ(of([&] { (void)rates.cost(10, "rank", host); }), "lock unlock ");
  EXPECT_EQ(of([&] { (void)rates.tokens(10, host); }), "lock unlock ");
}

}  // namespace decision_bounds
