// The native condition: reentrant, given up wholly while it sleeps, and woken for all.

#include <atomic>
#include <chrono>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds::native {

/// Lets so many threads sleep, wakes them once, and returns when all of them have gone on.
void wake_sleepers_once(int count) {
  constexpr double until_woken_s = 3600.0;
  Condition changed;
  int asleep = 0;
  bool open = false;
  int finished = 0;
  std::vector<std::thread> sleepers;
  for (int number = 0; number < count; ++number) {
    sleepers.emplace_back([&] {
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
    if (asleep == count) {
      open = true;
      changed.notify_all();
    }
  }
  for (std::thread& sleeper : sleepers) {
    sleeper.join();
  }
  EXPECT_EQ(finished, count);
}

TEST(Condition, OneWakeUpEndsEverySleepAndASleeperHasGivenUpAllItsLevels) {
  wake_sleepers_once(1);
  wake_sleepers_once(8);
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
    const auto start = std::chrono::steady_clock::now();
    changed.wait(0.02);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    const std::lock_guard after_the_sleep(changed);
  }
  EXPECT_TRUE(keeps_others_out());
}

// Elsewhere a cancelled thread is not unwound; the address sanitizer does not follow it.
#if defined(__GLIBC__) && defined(__GLIBCXX__) && !defined(__SANITIZE_ADDRESS__)
TEST(Condition, ASleeperThatIsCancelledGivesTheLockUp) {
  Condition changed;
  bool asleep = false;
  std::thread sleeper([&] {
    const std::lock_guard outer(changed);
    const std::lock_guard inner(changed);
    asleep = true;
    for (;;) {
      changed.wait(3600.0);
    }
  });
  for (bool seen = false; !seen; std::this_thread::yield()) {
    const std::lock_guard held(changed);
    seen = asleep;
  }
  ASSERT_EQ(pthread_cancel(sleeper.native_handle()), 0);
  sleeper.join();
  { const std::lock_guard held(changed); }
  std::thread([&] { const std::lock_guard held(changed); }).join();
}
#endif

}  // namespace decision_bounds::native
