// The native condition: reentrant, given up wholly while it sleeps, and woken for all.

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds::native {

TEST(Condition, OneWakeUpEndsEverySleepAndASleeperHasGivenUpAllItsLevels) {
  constexpr double until_woken_s = 3600.0;
  Condition changed;
  int asleep = 0;
  bool open = false;
  int finished = 0;
  std::vector<std::thread> sleepers(8);
  for (std::thread& sleeper : sleepers) {
    sleeper = std::thread([&] {
      const std::lock_guard outer(changed);
      {
        const std::lock_guard inner(changed);
        ++asleep;
        while (!open) {
          changed.wait(until_woken_s);
        }
      }
      // The outer level, taken back after the sleep, still keeps the others out.
      const int before = finished;
      std::this_thread::yield();
      finished = before + 1;
    });
  }
  while (!open) {
    std::this_thread::yield();
    const std::lock_guard held(changed);
    if (asleep == 8) {
      open = true;
      changed.notify_all();
    }
  }
  for (std::thread& sleeper : sleepers) {
    sleeper.join();
  }
  EXPECT_EQ(finished, 8);
}

TEST(Condition, WhoHadTheLockOnceTakesItAnewAndKeepsTheOthersOut) {
  using namespace std::chrono_literals;
  Condition changed;
  const auto keeps_others_out = [&changed] {
    std::atomic<bool> entered = false;
    std::unique_lock held(changed);
    std::thread other([&] {
      const std::lock_guard of_the_other(changed);
      entered = true;
    });
    std::this_thread::sleep_for(20ms);
    const bool kept_out = !entered;
    held.unlock();
    other.join();
    return kept_out;
  };
  EXPECT_TRUE(keeps_others_out());
  EXPECT_TRUE(keeps_others_out()) << "the lock given up was given up wholly";
  {
    const std::lock_guard held(changed);
    changed.wait(0.001);
    const std::lock_guard after_the_sleep(changed);
  }
  EXPECT_TRUE(keeps_others_out());
}

}  // namespace decision_bounds::native
