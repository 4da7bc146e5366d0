#include "decision_bounds/native_condition.hpp"

#include <chrono>
#include <utility>

namespace decision_bounds::native {

void Condition::lock() {
  const std::thread::id caller = std::this_thread::get_id();
  if (owner_.load(std::memory_order_relaxed) != caller) {
    mutex_.lock();
    owner_.store(caller, std::memory_order_relaxed);
  }
  ++depth_;
}

void Condition::unlock() {
  if (--depth_ == 0) {
    owner_.store({}, std::memory_order_relaxed);
    mutex_.unlock();
  }
}

void Condition::wait(double seconds) {
  // Takes the lock back in its destructor: a thread that is cancelled leaves its sleep unwound, and
  // the scopes that hold the lock then give it up.
  struct Sleep {
    ~Sleep() {
      --condition.sleepers_;
      condition.depth_ = depth;
      condition.owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
      held.release();
    }
    Condition& condition;
    const int depth;
    std::unique_lock<std::mutex> held;
  } sleep{*this, std::exchange(depth_, 0), std::unique_lock(mutex_, std::adopt_lock)};
  owner_.store({}, std::memory_order_relaxed);
  ++sleepers_;
  woken_.wait_for(sleep.held, std::chrono::duration<double>(seconds));
}

}  // namespace decision_bounds::native
