// The daily cap: how a day starts, whom it admits and refuses, and what a failure leaves.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds {

using native::HeldShare;

/// An account of 1 USD a day, and a caller with a date, a ledger, a clock and a stop.
struct DailySpendTest : ::testing::Test, native::Log {
  DailySpendTest() { host.log = this; }
  void warning(const std::string& text) override { warnings.push_back(text); }

  HeldShare admit(const Scripted::BoundFunction& bound) {
    return account.admit(
        bound, deadline, [this] { return now; }, [this] { return stop; }, host);
  }
  HeldShare admit(double bound) {
    return admit([bound] { return bound; });
  }
  static std::string no_date() { throw Interrupt(); }
  double spent() { return account.spent(host); }
  std::string read_date() const {
    EXPECT_EQ(changed.levels, 1) << "a day is started by one call at a time";
    return date;
  }
  double read_ledger(const std::string& day) {
    dates_read.push_back(day);
    return ledger.at(day);
  }
  bool idle() const { return is_idle(account.changed_, account.held_); }

  std::string date = "2024-02-29";
  std::map<std::string, double> ledger = {{date, 0.5}};  ///< USD; fails where a date is missing.
  std::vector<std::string> dates_read;
  std::vector<std::string> warnings;
  Scripted::Deadline deadline;
  double now = 0.0;
  bool stop = false;
  Scripted host;
  DailySpend<Scripted> account{
      .cap = 1.0,
      .today = [this] { return read_date(); },
      .ledger = [this](const std::string& day) { return read_ledger(day); },
  };
  ScriptedCondition& changed = account.changed_;
};

TEST_F(DailySpendTest, EachDateStartsOnceFromTheLedger) {
  account.charge({.cached = true, .cost = 0.25}, host);
  EXPECT_EQ(changed.wake_alls, 1);
  EXPECT_EQ(spent(), 0.75) << "a reply's cost counts whatever else it says";
  ledger["2024-02-28"] = 0.125;
  date = "2024-02-28";
  EXPECT_EQ(spent(), 0.125) << "an earlier date starts anew as well";
  EXPECT_THAT(dates_read, ElementsAre("2024-02-29", "2024-02-28"));
  account.ledger = nullptr;
  date = "2024-03-01";
  EXPECT_EQ(spent(), 0.0);
}

TEST_F(DailySpendTest, ALedgerThatFailsIsLoggedAndCountsAsNothing) {
  ledger.clear();
  EXPECT_EQ(spent(), 0.0);
  ledger[date] = 0.5;
  EXPECT_EQ(spent(), 0.0) << "not asked again on the same date";
  EXPECT_THAT(warnings, ElementsAre(::testing::StartsWith(
                            "Could not read what the decision calls of 2024-02-29 cost; "
                            "the daily cap counts from 0")));
}

TEST_F(DailySpendTest, AnInterruptOfTheLedgerPassesAndStartsNoDay) {
  const Scripted::Ledger readable = std::exchange(account.ledger, interrupt);
  EXPECT_THROW((void)admit(0.5), Interrupt);
  EXPECT_TRUE(idle());
  account.ledger = readable;
  EXPECT_EQ(spent(), 0.5);
  EXPECT_THAT(warnings, ElementsAre());
}

TEST_F(DailySpendTest, ReachingTheCapRefusesAndWarnsOnceADay) {
  account.cap = 5.0;
  ledger = {{date, 5.00012}, {"2024-03-01", 5.0}};
  // A refused call is not asked what it may cost, nor looked at for a stop or its deadline.
  stop = true;
  deadline = -1.0;
  const auto refused = [this] { return admit(interrupt); };
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_THAT(refused,
                ThrowsMessage<DecisionBudgetExceeded>(
                    "the daily decision cost cap is reached: $5.0001 of $5.00 spent today (UTC)"));
  }
  EXPECT_THAT(warnings, ElementsAre("The daily decision cost cap is reached: $5.0001 of $5.00 "
                                    "spent today (UTC); paid calls resume tomorrow, cached answers "
                                    "are still used"));
  date = "2024-03-01";
  EXPECT_THROW((void)refused(), DecisionBudgetExceeded);
  EXPECT_THAT(warnings, SizeIs(2));
  EXPECT_TRUE(idle());
}

TEST_F(DailySpendTest, AWaitingCallIsAskedAgainAndHoldsItsLastAnswer) {
  HeldShare first = admit(unknown);
  changed.asleep = [&] { first.settle({.cached = true, .cost = 0.25}); };
  double bound = unknown;
  HeldShare second = admit([&] { return std::exchange(bound, 0.125); });
  EXPECT_THAT(changed.sleeps, ElementsAre(0.1));
  EXPECT_EQ(changed.wake_alls, 1);
  EXPECT_EQ(spent(), 0.75);
  EXPECT_EQ(account.held_.amount, 0.125);
  second.release();
  EXPECT_EQ(spent(), 0.75);
  EXPECT_TRUE(idle());
}

TEST_F(DailySpendTest, AWaitEndsAtTheDeadlineOrInAStopOrBeforeThatInARefusal) {
  deadline = 7.0;
  HeldShare first = admit(0.5);
  changed.asleep = [&] { now = 7.0; };
  EXPECT_THROW((void)admit(0.125), DecisionTimeout);
  stop = true;
  EXPECT_THROW((void)admit(0.125), DecisionStopped);
  first.release();
  HeldShare second = admit(2.0);  // Where there is room, neither is looked at.
  EXPECT_THAT(warnings, ElementsAre());
  stop = false;
  now = 0.0;
  changed.asleep = [&] {
    second.settle({.cost = 0.5});
    stop = true;
  };
  EXPECT_THROW((void)admit(0.125), DecisionBudgetExceeded);
  EXPECT_TRUE(idle());
}

TEST_F(DailySpendTest, SharesAreHeldAcrossMidnightAndCountOnTheDayTheySettle) {
  HeldShare first = admit(0.5);
  changed.asleep = [&] { date = "2024-03-01"; };
  ledger["2024-03-01"] = 0.25;
  HeldShare second = admit(0.125);
  EXPECT_EQ(account.held_.amount, 0.625);
  first.settle({.cost = 0.5});
  EXPECT_EQ(spent(), 0.75);
  date = "2024-03-02";
  second.release();
  EXPECT_THAT(dates_read, SizeIs(2)) << "a call without a reply starts no day";
}

TEST_F(DailySpendTest, AFailureLeavesNothingHeld) {
  EXPECT_THROW((void)admit(interrupt), Interrupt);
  host.share_cannot_be_made = true;
  EXPECT_THROW((void)admit(unknown), Interrupt);
  EXPECT_TRUE(idle());
  host.share_cannot_be_made = false;
  {
    const HeldShare full = admit(1.0);
    EXPECT_THROW((void)account.admit([] { return 0.5; }, 1.0, interrupt, {}, host), Interrupt);
    EXPECT_EQ(account.held_.holders, 1);
  }
  EXPECT_TRUE(idle());
  account.today = no_date;
  EXPECT_THROW((void)admit(0.5), Interrupt);
  EXPECT_THROW(account.charge({}, host), Interrupt);
  EXPECT_TRUE(idle());
}

TEST_F(DailySpendTest, AShareIsGivenBackAlsoWhereItsReplyCannotBeCounted) {
  host.cost_is_unreadable = true;
  HeldShare unreadable = admit(0.25);
  EXPECT_THROW(unreadable.settle({.cost = 0.5}), Interrupt);
  EXPECT_EQ(changed.wake_alls, 1);
  EXPECT_TRUE(idle());
  HeldShare undated = admit(unknown);
  account.today = no_date;
  EXPECT_THROW(undated.settle({.cost = 0.5}), Interrupt);
  EXPECT_EQ(changed.wake_alls, 2);
  EXPECT_TRUE(idle());
}

}  // namespace decision_bounds
