// The bounds as a C++ program makes and uses them: their host, their log, their waits, what they
// tell.

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds::native {

using std::chrono::days;
using std::chrono::sys_days;

struct RecordedLog : Log {
  void warning(const std::string& text) override { warnings.push_back(text); }
  std::vector<std::string> warnings;
};

struct NativeTest : ::testing::Test {
  sys_days today = sys_days(std::chrono::year(2024) / 2 / 29);
  RecordedLog log;
};

double unreadable(sys_days) { throw std::runtime_error("no such table"); }

TEST_F(NativeTest, BothWarningsReachTheLogOrNobody) {
  for (Log* const to : {static_cast<Log*>(&log), static_cast<Log*>(nullptr)}) {
    DailySpend spend(
        4.5, [this] { return today; }, unreadable, to);
    spend.charge({.cost = 5.00012});
    EXPECT_THAT([&] { spend.admit([] { return 0.25; }).release(); },
                ThrowsMessage<DecisionBudgetExceeded>(
                    "the daily decision cost cap is reached: $5.0001 of $4.50 spent today (UTC)"));
  }
  EXPECT_THAT(
      log.warnings,
      ElementsAre("Could not read what the decision calls of 2024-02-29 cost; the daily cap "
                  "counts from 0: no such table",
                  "The daily decision cost cap is reached: $5.0001 of $4.50 spent today (UTC); "
                  "paid calls resume tomorrow, cached answers are still used"));
  DailySpend(
      1.0, [this] { return today; }, unreadable, &log)
      .spent();
  EXPECT_THAT(log.warnings, SizeIs(3));
}

TEST_F(NativeTest, AnExhaustedPassRefusesWithItsSummary) {
  bool stop = false;
  RunBudget budget{.max_calls = 40,
                   .max_tokens = 900,
                   .calls = 39,
                   .input_tokens = 812,
                   .cost = 0.1834124,
                   .cache_hits = 3,
                   .should_stop = [&] { return stop; }};
  budget.charge({});
  EXPECT_THAT([&] { budget.reserve(); },
              ThrowsMessage<DecisionBudgetExceeded>(
                  "decision budget exhausted: {'calls': 40, 'cache_hits': 3, 'input_tokens': 812, "
                  "'cost_usd': 0.183412, 'max_calls': 40, 'max_tokens': 900}"));
  stop = true;
  EXPECT_THAT([&] { budget.reserve(); },
              ThrowsMessage<DecisionStopped>("the pass was asked to stop"));
}

TEST_F(NativeTest, TheWaitsOfAnAdmissionHaveNames) {
  DailySpend spend(
      1.0, [this] { return today; }, [](sys_days) { return 0.25; });
  const HeldShare full = spend.admit([] { return 0.75; });
  const auto admit = [&](const Waits& waits) { spend.admit([] { return 0.25; }, waits).release(); };
  EXPECT_THROW((void)admit({.deadline = 7.0, .clock = [] { return 7.0; }}), DecisionTimeout);
  EXPECT_THROW((void)admit({.stopping = [] { return true; }}), DecisionStopped);
}

TEST_F(NativeTest, ASnapshotTellsWhatIsCountedAndWhatIsHeld) {
  DailySpend spend(1.0, [this] { return today; });
  EXPECT_EQ(snapshot(spend), DaySnapshot());
  const HeldShare usd = spend.admit([] { return 0.25; });
  spend.charge({.cost = 0.125});
  EXPECT_EQ(snapshot(spend), (DaySnapshot{today, 0.125, {.holders = 1, .amount = 0.25}}));
  today += days(1);
  EXPECT_EQ(native::snapshot(spend).day, today - days(1)) << "a snapshot starts no day";
  today = sys_days();  // Any date may be the first.
  EXPECT_EQ(DailySpend(
                1.0, [this] { return today; }, [](sys_days) { return 0.5; })
                .spent(),
            0.5);

  RunBudget budget{.max_calls = 4, .max_tokens = 100};
  budget.charge({.input_tokens = 7, .cost = 0.0000001});
  const HeldShare tokens = budget.hold(unknown);
  EXPECT_EQ(snapshot(budget), (PassSnapshot{.calls = 1,
                                            .input_tokens = 7,
                                            .cost_usd = 0.0000001,
                                            .in_flight = 1,
                                            .held = {.holders = 1, .unbounded = 1}}));
  EXPECT_EQ(budget.summary(),
            (Summary{.calls = 1, .input_tokens = 7, .max_calls = 4, .max_tokens = 100}));
}

TEST_F(NativeTest, AShareKeepsTheHostThatItWasMadeWith) {
  struct Bound {
    void give_back(double, const PaidReply*, const Native& host) { log = host.log; }
    Log* log = nullptr;
  } bound;
  Native host{.log = &log};
  HeldShare share = host.make_share(bound, 1.0);
  host.log = nullptr;
  share.release();
  EXPECT_EQ(bound.log, &log);

  decision_bounds::DailySpend<DailyNative> spend{
      .cap = 1.0, .today = [this] { return today; }, .ledger = unreadable, .day_ = today};
  DailyNative of_a_day{{.log = &log}};
  HeldShare usd = spend.admit([] { return 0.5; }, {}, {}, {}, of_a_day);
  of_a_day.log = nullptr;
  today += days(1);
  usd.settle({.cost = 0.5});
  EXPECT_THAT(log.warnings, SizeIs(1));
}

}  // namespace decision_bounds::native
