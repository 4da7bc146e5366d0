// The bounds under many threads at once.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds::native {

constexpr int thread_count = 64;

/// Runs `work(number)` on all the threads at once.
void on_all_threads(const auto& work) {
  std::vector<std::thread> threads(thread_count);
  for (int number = 0; number < thread_count; ++number) {
    threads[static_cast<std::size_t>(number)] = std::thread(work, number);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void wait_until_at_least(const std::atomic<int>& count, int least) {
  for (int seen = count; seen < least; seen = count) {
    count.wait(seen);
  }
}

TEST(Threads, TheDayStopsWithinOneCallOfItsCap) {
  struct CountingLog : Log {
    std::atomic<int> warnings = 0;
    void warning(const std::string&) override { ++warnings; }
  } log;
  constexpr int dearest_64ths = 6;  // 64ths of a USD, whose sums are exact.
  constexpr int in_flight_when_full = 21;
  DailySpend account(
      2.0, [] { return std::chrono::sys_days(); }, {}, &log);
  RequestRates rates;
  std::atomic<int> paid_64ths = 0;
  std::atomic<int> admitted = 0;
  const auto call = [&](int cost_64ths, int in_flight) {
    const PaidReply reply{.cost = cost_64ths / 64.0};
    const auto bound = [&] { return rates.cost(100, "rank"); };
    HeldShare share = account.admit(bound);
    ++admitted;
    admitted.notify_all();
    wait_until_at_least(admitted, in_flight);
    rates.learn(100, "rank", reply);
    share.settle(reply);
    paid_64ths += cost_64ths;
  };
  call(dearest_64ths, 1);
  on_all_threads([&](int number) {
    const auto calls_until_refused = [&] {
      for (;;) {
        call(4 + number % 3, 1 + in_flight_when_full);
      }
    };
    EXPECT_THROW(calls_until_refused(), DecisionBudgetExceeded);
  });
  EXPECT_EQ(account.spent(), paid_64ths / 64.0);
  EXPECT_GE(paid_64ths, 2 * 64);
  EXPECT_LT(paid_64ths, 2 * 64 + dearest_64ths);
  EXPECT_EQ(snapshot(account).held.holders, 0);
  EXPECT_EQ(log.warnings, 1);
}

TEST(Threads, EveryCallOfAPassGetsItsTurnAndUnboundedOnesRunAlone) {
  RunBudget budget{.max_calls = thread_count, .max_tokens = 1000};
  std::atomic<int> in_flight = 0;
  on_all_threads([&](int number) {
    const bool alone = number % 8 == 0;
    HeldShare share = budget.hold(alone ? unknown : 400.0);
    // Two shares leave some room; a third one, admitted into it, leaves none.
    EXPECT_LE(++in_flight, alone ? 1 : 3);
    const PassSnapshot seen = snapshot(budget);
    EXPECT_EQ(seen.held.holders, seen.in_flight) << "both change under one holding of the lock";
    --in_flight;
    share.settle({.input_tokens = 10, .cost = 0.125});
  });
  EXPECT_EQ(budget.summary().text(),
            "{'calls': 64, 'cache_hits': 0, 'input_tokens': 640, 'cost_usd': 8.0, "
            "'max_calls': 64, 'max_tokens': 1000}");
  EXPECT_EQ(budget.in_flight + budget.held_tokens_.holders, 0);
}

TEST(Threads, ASnapshotWaitsForTheLock) {
  using namespace std::chrono_literals;
  RunBudget budget{.max_calls = 2, .max_tokens = 100};
  std::unique_lock changing(budget.changed_);
  auto reading = std::async(std::launch::async, [&] { return snapshot(budget); });
  EXPECT_EQ(reading.wait_for(20ms), std::future_status::timeout);
  budget.calls = 1;
  changing.unlock();
  EXPECT_EQ(reading.get().calls, 1);

  DailySpend spend(1.0, [] { return std::chrono::sys_days(); });
  std::future<DaySnapshot> reading_day;
  const HeldShare share = spend.admit([&] {
    reading_day = std::async(std::launch::async, [&] { return snapshot(spend); });
    EXPECT_EQ(reading_day.wait_for(20ms), std::future_status::timeout);
    return 0.5;
  });
  EXPECT_EQ(reading_day.get().held.amount, 0.5);
}

TEST(Threads, ASleepingCallSeesAStopThatNothingSignals) {
  std::atomic<int> stop_tests = 0;
  std::atomic<bool> stop = false;
  RunBudget budget{.max_calls = 2, .max_tokens = 100};
  budget.should_stop = [&] {
    EXPECT_EQ(budget.summary().calls, 0) << "a stop function may use the budget that asks it";
    ++stop_tests;
    stop_tests.notify_all();
    return stop.load();
  };
  const HeldShare full = budget.hold(100.0);
  std::future<void> waiting = std::async(std::launch::async, [&] { budget.reserve(1.0); });
  wait_until_at_least(stop_tests, 3);
  EXPECT_FALSE(budget.exhausted()) << "the lock is free while it sleeps";
  stop = true;
  EXPECT_THROW(waiting.get(), DecisionStopped);
}

}  // namespace decision_bounds::native
