// The daily cap where a date or a ledger fails.

#include <string>
#include <utility>

#include "scripted_host.hpp"

namespace decision_bounds {

using native::HeldShare;

struct DailySpendTest : ::testing::Test {
  HeldShare admit(double bound) {
    return account.admit([bound] { return bound; }, {}, {}, {});
  }
  bool idle() const { return is_idle(account.changed_, account.held_); }
  static std::string no_date() { throw Interrupt(); }

  DailySpend<Scripted> account{.cap = 1.0,
                               .today = [] { return "2024-02-29"; },
                               .ledger = [](const std::string&) { return 0.5; }};
};

TEST_F(DailySpendTest, AnInterruptOfTheLedgerPassesAndStartsNoDay) {
  const Scripted::Ledger readable = std::exchange(account.ledger, interrupt);
  EXPECT_THROW((void)admit(0.5), Interrupt);
  EXPECT_TRUE(idle());
  account.ledger = readable;
  EXPECT_EQ(account.spent(), 0.5);
}

TEST_F(DailySpendTest, ACapThatIsNoNumberRefuses) {
  account.cap = not_a_number;
  EXPECT_THROW((void)admit(0.5), DecisionBudgetExceeded);
}

TEST_F(DailySpendTest, WithoutADateNothingIsCountedButAShareIsGivenBack) {
  HeldShare share = admit(unknown);
  account.today = no_date;
  EXPECT_THROW((void)admit(0.5), Interrupt);
  EXPECT_THROW(account.charge({}), Interrupt);
  EXPECT_EQ(account.changed_.wake_alls, 0);
  EXPECT_THROW(share.settle({.cost = 0.5}), Interrupt);
  EXPECT_EQ(account.changed_.wake_alls, 1);
  EXPECT_TRUE(idle());
}

}  // namespace decision_bounds
