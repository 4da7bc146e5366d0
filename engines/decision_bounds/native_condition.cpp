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
  const int depth = std::exchange(depth_, 0);
  owner_.store({}, std::memory_order_relaxed);
  std::unique_lock held(mutex_, std::adopt_lock);
  ++sleepers_;
  woken_.wait_for(held, std::chrono::duration<double>(seconds));
  --sleepers_;
  held.release();
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  depth_ = depth;
}

}  // namespace decision_bounds::native
