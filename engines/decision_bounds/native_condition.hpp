#pragma once

/// The lock of a bound in plain C++: reentrant, and given up wholly while a call sleeps.

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace decision_bounds::native {

/// A condition variable over a reentrant lock of its own. `std::recursive_mutex` would not do: a
/// wait gives up one of its levels only, and a sleeper that holds two keeps everybody out.
class Condition {
 public:
  /// Takes the lock, or one more level of it where the calling thread holds it already.
  void lock();

  /// Gives one level up. The calling thread holds the lock.
  void unlock();

  /// Gives the lock up wholly, sleeps until notified or for `seconds`, takes it back as it was. The
  /// calling thread holds the lock.
  void wait(double seconds);

  /// Wakes every sleeper. The calling thread holds the lock.
  void notify_all() {
    if (sleepers_ > 0) {
      woken_.notify_all();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable woken_;
  std::atomic<std::thread::id> owner_{};  ///< Compared without the lock, only with oneself.
  int depth_ = 0;                         ///< Levels that the owner holds.
  int sleepers_ = 0;  ///< Threads in `wait`, some of them perhaps woken already.
};

}  // namespace decision_bounds::native
