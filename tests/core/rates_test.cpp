// What requests may cost and use, as the replies before them showed.

#include "scripted_host.hpp"

namespace decision_bounds {

TEST(Charges, BoundTheWholeChargeAndItsRateByTheSize) {
  Charges<native::Native> tokens;
  tokens.learn(3000, 1000);
  tokens.learn(1, not_a_number);
  EXPECT_EQ(tokens.per_byte, 0.3333333333333333);
  EXPECT_EQ(tokens.bound(1500), 1000.0);
  EXPECT_EQ(tokens.bound(6000), 2000.0);
}

TEST(RequestRates, AReplyThatCannotBeReadStillMakesItsFeatureKnown) {
  RequestRates<Scripted> rates;
  Scripted host;
  host.cost_is_unreadable = true;
  EXPECT_THROW(rates.learn(10, "rank", {.input_tokens = 5, .cost = 1.0}, host), Interrupt);
  EXPECT_EQ(rates.cost(10, "rank"), 0.0);
  EXPECT_EQ(rates.tokens(10), 0.0);
}

}  // namespace decision_bounds
