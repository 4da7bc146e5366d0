// The one wait for room: what ends it, and how long it sleeps.

#include <mutex>

#include "scripted_host.hpp"

namespace decision_bounds {

struct WaitTest : ::testing::Test {
  void wait(const Scripted::Deadline& deadline, const Scripted::Clock& clock) {
    const std::lock_guard held(changed);
    Scripted().wait(
        changed, [this] { return stop; }, deadline, clock);
  }
  ScriptedCondition changed;
  bool stop = false;
};

TEST_F(WaitTest, AStopThenADeadlineEndTheWaitBeforeAnySleep) {
  for (const double now : {7.0, 7.5, unknown}) {
    EXPECT_THAT([&] { wait(7.0, [now] { return now; }); },
                ThrowsMessage<DecisionTimeout>(
                    "the decision call ran out of its deadline while the calls in flight held the "
                    "rest of the daily cost cap"));
  }
  EXPECT_THROW(wait(7.0, interrupt), Interrupt);
  stop = true;
  EXPECT_THAT([&] { wait(7.0, interrupt); },
              ThrowsMessage<DecisionStopped>("the pass was asked to stop"));
  EXPECT_THAT(changed.sleeps, ElementsAre());
}

TEST_F(WaitTest, SleepsForThePollIntervalOrUntilTheDeadline) {
  for (const double deadline : {0.03125, 5.0, unknown, not_a_number}) {
    wait(deadline, [] { return 0.0; });
  }
  EXPECT_THAT(changed.sleeps, ElementsAre(0.03125, 0.1, 0.1, 0.1));
}

TEST_F(WaitTest, ADeadlineNeedsAClockAndAClockADeadline) {
  wait(-1.0, {});
  wait({}, interrupt);
  EXPECT_THAT(changed.sleeps, ElementsAre(0.1, 0.1));
}

}  // namespace decision_bounds
