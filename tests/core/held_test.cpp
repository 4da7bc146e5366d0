// The tally of what the calls in flight hold: what odd amounts leave in it.

#include "scripted_host.hpp"

namespace decision_bounds {

TEST(Held, WhatIsGivenBackLeavesNoRemainderAndNothingBelowZero) {
  Held<native::Native> held;
  held.take(0.1);
  held.take(0.2);
  held.give_back(0.1);
  EXPECT_EQ(held.amount, 0.1 + 0.2 - 0.1);
  held.give_back(0.2);
  EXPECT_EQ(held.amount, 0.0);
  held.take(1.0);
  held.take(not_a_number);
  held.give_back(not_a_number);
  EXPECT_EQ(held.amount, 0.0) << "also where another call is left";
  held.give_back(1.0);
  held.take(-unknown);
  EXPECT_FALSE(held.admits(0.0, 0.0, unknown)) << "unbounded on either side";
  held.give_back(-unknown);
  EXPECT_TRUE(held.admits(-unknown, 0.0, 1.0));
  held.take(1.0);
  held.take(1.0);
  held.give_back(unknown);
  EXPECT_TRUE(held.admits(0.0, 0.0, 9.0));
  held.take(1.0);
  held.give_back(9.0);
  EXPECT_EQ(held.amount, 0.0) << "nothing goes below zero";
}

}  // namespace decision_bounds
