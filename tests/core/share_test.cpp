// Shares: however a call ends, and on whichever thread, they are given back once.

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds::native {

/// Makes shares that record what they are given back with: the cost of the reply, or -1 for none.
struct ShareTest : ::testing::Test {
  HeldShare share() {
    return HeldShare([this](auto* reply) { given_back.push_back(reply ? reply->cost : -1.0); });
  }
  std::vector<double> given_back;
};

TEST_F(ShareTest, OnlyTheFirstEndOfACallCounts) {
  {
    HeldShare paid = share();
    paid.settle({.cost = 0.25});
    paid.settle({.cost = 0.5});
    HeldShare unpaid = share();
    unpaid.release();
    unpaid.settle({.cost = 0.75});
    HeldShare().settle({.cost = 1.0});
  }
  EXPECT_THAT(given_back, ElementsAre(0.25, -1.0));
}

TEST_F(ShareTest, TheScopeGivesBackHoweverItEnds) {
  { const HeldShare left = share(); }
  const auto failing_call = [](const HeldShare&) { throw Interrupt(); };
  EXPECT_THROW(failing_call(share()), Interrupt);
  EXPECT_THAT(given_back, ElementsAre(-1.0, -1.0));
}

TEST_F(ShareTest, AMovedShareIsGivenBackOnceByItsNewOwner) {
  HeldShare first = share();
  {
    const HeldShare second = std::move(first);
    first.settle({.cost = 0.25});                // NOLINT: nothing is left in it.
    const HeldShare nothing = std::move(first);  // NOLINT: the same.
    EXPECT_THAT(given_back, ElementsAre());
  }
  EXPECT_THAT(given_back, ElementsAre(-1.0));
}

TEST_F(ShareTest, AShareThatTakesOverAnotherGivesBackItsOwnFirst) {
  HeldShare kept([this](auto*) { given_back.push_back(-2.0); });
  {
    HeldShare first = share();
    kept = std::move(first);
  }
  EXPECT_THAT(given_back, ElementsAre(-2.0));
  kept.settle({.cost = 0.25});
  EXPECT_THAT(given_back, ElementsAre(-2.0, 0.25));
}

TEST_F(ShareTest, AFailingGiveBackIsNotTriedAgain) {
  HeldShare failing(interrupt);
  EXPECT_THROW(failing.settle({}), Interrupt);
  EXPECT_NO_THROW(failing.settle({}));
}

TEST_F(ShareTest, ThreadsThatSettleAtOnceGiveBackOnce) {
  for (int round = 0; round < 300; ++round) {
    std::atomic<int> calls = 0;
    HeldShare shared([&](auto*) { ++calls; });
    std::atomic<int> ready = 0;
    const auto settle = [&] {
      ++ready;
      while (ready < 2) {  // Spins, so that the two start as close together as can be.
      }
      shared.settle({});
    };
    std::thread other(settle);
    settle();
    other.join();
    ASSERT_EQ(calls, 1);
  }
}

}  // namespace decision_bounds::native
