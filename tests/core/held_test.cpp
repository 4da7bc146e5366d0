// The tally of what the calls in flight hold, and its rule of admission.

#include "scripted_host.hpp"

namespace decision_bounds {

using NativeHeld = Held<native::Native>;

TEST(Held, AdmitsWhileAnyRoomIsLeftWhateverTheNewShare) {
  NativeHeld held;
  EXPECT_TRUE(held.admits(unknown, 9.0, 10.0));
  EXPECT_FALSE(held.admits(unknown, 10.0, 10.0));
  held.take(3.0);
  EXPECT_TRUE(held.admits(100.0, 0.0, 4.0));
  EXPECT_FALSE(held.admits(0.0, 1.0, 4.0));
}

TEST(Held, AnUnboundedShareRunsAlone) {
  for (const double share : {unknown, -unknown}) {
    NativeHeld held;
    held.take(0.0);
    EXPECT_FALSE(held.admits(share, 0.0, 1000.0)) << "a share of nothing is a share";
    held.give_back(0.0);
    held.take(share);
    EXPECT_EQ(held.amount, 0.0);
    EXPECT_FALSE(held.admits(0.0, 0.0, unknown));
    held.give_back(share);
    EXPECT_TRUE(held.admits(share, 0.0, 1.0));
  }
}

TEST(Held, WhatIsGivenBackLeavesNoRemainderAndNothingBelowZero) {
  NativeHeld held;
  held.take(0.1);
  held.take(0.2);
  held.give_back(0.1);
  EXPECT_EQ(held.amount, 0.1 + 0.2 - 0.1);
  held.give_back(0.2);
  EXPECT_EQ(held.amount, 0.0);
  held.give_back(2.0);
  held.give_back(unknown);
  EXPECT_TRUE(held.admits(unknown, 0.0, 1.0));
  held.take(1.0);
  held.take(not_a_number);
  held.give_back(not_a_number);
  EXPECT_EQ(held.amount, 0.0);
}

}  // namespace decision_bounds
