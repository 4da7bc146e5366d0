#pragma once

/// Every order of a few calls: a scheduler that runs them one at a time, and a world for the bounds
/// in which whoever takes a lock, sleeps or wakes the others lets any other call go on first.

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "scripted_host.hpp"

namespace decision_bounds {

/// Ends a call that nothing would ever wake.
struct Abandoned {};

/// Runs calls, each on a thread of its own, in one order after the other. Exactly one of them, or
/// the thread that made the scheduler, runs at any time.
class Scheduler {
 public:
  using Calls = std::vector<std::function<void()>>;
  using Condition = std::function<bool()>;

  /// For this many calls. Where `time_passes`, a sleeping call wakes up by itself once in each
  /// order, at any point, and whenever no other call can go on. Where it does not, a call that
  /// sleeps while no other can go on is a failure of the test.
  Scheduler(std::size_t calls, bool time_passes);
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  ~Scheduler();

  /// Runs the calls that `start` returns, and then `end`, in every order in which they can go on.
  /// What a call does before its first point is done at once. Returns how many orders there were.
  int each_order(const std::function<Calls()>& start, const std::function<void()>& end);

  /// Lets any other call go on before the running one, which goes on once it is `ready`.
  void point(const Condition& ready);

  /// As `point`, for a call that sleeps; the time wakes it up where it is `ready_late`.
  void sleep(const Condition& ready, const Condition& ready_late);

  /// Which call is running.
  const void* running() const { return running_; }

  /// How often the time has woken a call in this order.
  int now() const { return now_; }

 private:
  /// Whose turn it is: given by one thread, taken by another. An `std::atomic` that is waited for
  /// would yield the processor a few times first, and on a loaded machine that takes minutes.
  struct Turn {
    void give() {
      const std::lock_guard lock(mutex);
      given = true;
      changed.notify_one();
    }
    void take() {
      std::unique_lock lock(mutex);
      changed.wait(lock, [this] { return given; });
      given = false;
    }
    std::mutex mutex;
    std::condition_variable changed;
    bool given = false;
  };
  struct Worker {
    std::function<void()> call;
    Condition ready;
    Condition ready_late;
    bool done = true;
    Turn turn;
    std::thread thread;
  };
  struct Choice {
    std::size_t taken;
    std::size_t of;
  };

  void work(Worker& worker);
  void pass_on();
  std::vector<Worker*> able();
  bool next_order();

  std::vector<std::unique_ptr<Worker>> workers_;
  std::vector<Choice> choices_;  ///< Of this order; the first `depth_` have been made.
  std::size_t depth_ = 0;
  Worker* running_ = nullptr;
  Turn own_turn_;  ///< Of the thread that made the scheduler.
  int now_ = 0;
  bool time_passes_;
  bool starting_ = false;
  bool abandoned_ = false;
  bool ended_ = false;
};

/// A reentrant lock with sleepers, each use of which is a point of the scheduler.
class OrderedCondition {
 public:
  void lock();
  void unlock();
  void wait(double seconds);
  void notify_all();

  /// Whether the running call holds it.
  bool is_held() const;

  static Scheduler* scheduler;  ///< The last that was made.
  int levels = 0;

 private:
  const void* owner_ = nullptr;
  std::set<const void*> asleep_;
};

/// A tally that only a call with the lock may use.
struct OrderedTally : native::HeldRecord {
  const OrderedCondition* lock = nullptr;

  bool admits(double share, auto used, auto limit) const {
    EXPECT_TRUE(lock->is_held());
    return HeldRecord::admits(share, used, limit);
  }
  void take_or_nothing(double share) {
    EXPECT_TRUE(lock->is_held());
    Held::take_or_nothing(share);
  }
  void give_back(double share) {
    EXPECT_TRUE(lock->is_held());
    Held::give_back(share);
  }
};

enum class Fault { none, share_cannot_be_made, cost_is_unreadable };

/// Numbers, callbacks and errors are those of plain C++.
struct Ordered : native::Native {
  using Condition = OrderedCondition;
  using HeldRecord = OrderedTally;

  Fault fault = Fault::none;

  double cost(Reply reply) const {
    return fault == Fault::cost_is_unreadable ? interrupt() : reply.cost;
  }
  static void notify_all(Condition& changed) { changed.notify_all(); }
  void wait(Condition& changed, const StopFunction& stopping, const Deadline& deadline = {},
            const Clock& clock = {}) const {
    decision_bounds::wait(changed, stopping, deadline, clock, *this);
  }
  static StopFunction stop_function(const RunBudget<Ordered>& budget) {
    return [&budget] { return budget.stopping(); };
  }
  HeldShare make_share(auto& bound, double held) const {
    if (fault == Fault::share_cannot_be_made) {
      throw Interrupt();
    }
    return HeldShare([&bound, held, host = *this](const native::PaidReply* reply) {
      bound.give_back(held, reply, host);
    });
  }
};
static_assert(Host<Ordered>);

}  // namespace decision_bounds
