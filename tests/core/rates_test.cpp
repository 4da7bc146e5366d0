// What requests may cost and use, as the replies before them showed.

#include "scripted_host.hpp"

namespace decision_bounds {

using NativeCharges = Charges<native::Native>;

TEST(Charges, BoundTheWholeChargeAndItsRateByTheSize) {
  NativeCharges tokens;
  EXPECT_EQ(tokens.bound(5000), 0.0);
  tokens.learn(3000, 1000);
  EXPECT_EQ(tokens.per_byte, 0.3333333333333333);
  EXPECT_EQ(tokens.bound(0), 1000.0);
  EXPECT_EQ(tokens.bound(1500), 1000.0);
  EXPECT_EQ(tokens.bound(6000), 2000.0);
}

TEST(Charges, EachMaximumGrowsByItselfAndNeverFalls) {
  NativeCharges cost;
  cost.learn(1000, 0.02);
  for (const double charge : {0.01, 0.001, -1.0, not_a_number}) {
    cost.learn(100, charge);
    EXPECT_EQ(cost.per_byte, 0.0001);
    EXPECT_EQ(cost.per_call, 0.02);
  }
}

TEST(Charges, ASizeBelowOneByteCountsAsOne) {
  for (const int size : {1, 0, -8}) {
    NativeCharges cost;
    cost.learn(size, 0.05);
    EXPECT_EQ(cost.bound(3), 0.05 * 3);
  }
}

TEST(RequestRates, CostIsKnownByFeatureAndTokensByAnyReply) {
  native::RequestRates rates;
  EXPECT_EQ(rates.cost(2000, "rank"), unknown);
  EXPECT_EQ(rates.tokens(2000), unknown);

  rates.learn(1000, "rank", {.cached = true, .input_tokens = 400, .cost = 0.02});
  EXPECT_EQ(rates.cost(2000, "rank"), 0.04);
  EXPECT_EQ(rates.cost(500, "route"), unknown);
  EXPECT_EQ(rates.tokens(2000), 800.0);

  rates.learn(1000, "route", {.input_tokens = 1, .cost = 0.5});
  EXPECT_EQ(rates.cost(2000, "rank"), 1.0) << "the dearest reply of any feature";
}

TEST(RequestRates, AReplyThatCannotBeReadStillMakesItsFeatureKnown) {
  RequestRates<Scripted> rates;
  Scripted host;
  host.cost_is_unreadable = true;
  EXPECT_THROW(rates.learn(10, "rank", {.input_tokens = 5, .cost = 1.0}, host), Interrupt);
  EXPECT_EQ(rates.cost(10, "rank"), 0.0);
  EXPECT_EQ(rates.tokens(10), 0.0);
}

TEST(RequestRates, EachOperationTakesTheLockOnce) {
  RequestRates<Scripted> rates;
  rates.learn(10, "rank", {});
  rates.cost(10, "rank");
  rates.tokens(10);
  EXPECT_EQ(rates.lock_.taken, 3);
  EXPECT_FALSE(rates.lock_.held);
}

}  // namespace decision_bounds
