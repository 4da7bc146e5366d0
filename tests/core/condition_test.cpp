// The native condition: reentrant, given up wholly while it sleeps, and woken for all.

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

}  // namespace decision_bounds::native
