#include "interleavings.hpp"

namespace decision_bounds {

namespace {

/// More than any order needs: what wakes up so often waits for what never comes.
constexpr int latest = 50;

}  // namespace

Scheduler* OrderedCondition::scheduler = nullptr;

Scheduler::Scheduler(std::size_t calls, bool time_passes) : time_passes_(time_passes) {
  for (std::size_t number = 0; number < calls; ++number) {
    workers_.push_back(std::make_unique<Worker>());
    Worker& worker = *workers_.back();
    worker.thread = std::thread([this, &worker] { work(worker); });
  }
  OrderedCondition::scheduler = this;
}

Scheduler::~Scheduler() {
  ended_ = true;
  for (const auto& worker : workers_) {
    worker->turn.give();
    worker->thread.join();
  }
}

int Scheduler::each_order(const std::function<Calls()>& start, const std::function<void()>& end) {
  int orders = 0;
  do {
    Calls calls = start();
    now_ = 0;
    abandoned_ = false;
    starting_ = true;
    for (std::size_t number = 0; number < calls.size(); ++number) {
      running_ = workers_[number].get();
      running_->call = std::move(calls[number]);
      running_->done = false;
      running_->turn.give();
      own_turn_.take();
    }
    starting_ = false;
    pass_on();
    own_turn_.take();
    end();
    ++orders;
  } while (!::testing::Test::HasFailure() && next_order());
  return orders;
}

void Scheduler::work(Worker& worker) {
  for (worker.turn.take(); !ended_; worker.turn.take()) {
    try {
      worker.call();
    } catch (const Abandoned&) {
      EXPECT_TRUE(abandoned_) << "a failure that no call expects";
    }
    worker.done = true;
    pass_on();
  }
}

void Scheduler::point(const Condition& ready) { sleep(ready, nullptr); }

void Scheduler::sleep(const Condition& ready, const Condition& ready_late) {
  Worker& self = *running_;
  self.ready = ready;
  self.ready_late = ready_late;
  pass_on();
  self.turn.take();
  if (abandoned_ && ready_late) {
    throw Abandoned();
  }
}

void Scheduler::pass_on() {
  std::vector<Worker*> next;
  if (!starting_) {
    next = able();
  }
  if (next.empty()) {
    own_turn_.give();
    return;
  }
  if (depth_ == choices_.size()) {
    choices_.push_back({0, next.size()});
  }
  running_ = next[choices_[depth_++].taken];
  now_ += running_->ready() ? 0 : 1;
  running_->turn.give();
}

std::vector<Scheduler::Worker*> Scheduler::able() {
  std::vector<Worker*> ready;
  std::vector<Worker*> late;
  bool all_done = true;
  for (const auto& worker : workers_) {
    if (worker->done) {
      continue;
    }
    all_done = false;
    if (worker->ready()) {
      ready.push_back(worker.get());
    } else if (worker->ready_late && worker->ready_late()) {
      late.push_back(worker.get());
    }
  }
  if (ready.empty() && !all_done && (!time_passes_ || now_ > latest)) {
    EXPECT_TRUE(abandoned_) << "a call sleeps, and nothing will ever wake it";
    abandoned_ = true;
  }
  if (abandoned_ || (time_passes_ && (ready.empty() || now_ == 0))) {
    ready.insert(ready.end(), late.begin(), late.end());
  }
  return ready;
}

bool Scheduler::next_order() {
  depth_ = 0;
  while (!choices_.empty() && choices_.back().taken + 1 == choices_.back().of) {
    choices_.pop_back();
  }
  if (choices_.empty()) {
    return false;
  }
  ++choices_.back().taken;
  return true;
}

void OrderedCondition::lock() {
  if (!is_held()) {
    scheduler->point([this] { return levels == 0; });
    owner_ = scheduler->running();
  }
  ++levels;
}

void OrderedCondition::unlock() {
  EXPECT_TRUE(is_held());
  --levels;
}

void OrderedCondition::wait(double /*seconds*/) {
  EXPECT_TRUE(is_held());
  const void* const self = scheduler->running();
  const int held = std::exchange(levels, 0);
  asleep_.insert(self);
  const auto take_back = [&] {
    asleep_.erase(self);
    owner_ = self;
    levels = held;
  };
  const auto is_free = [this] { return levels == 0; };
  native::Native::on_failure(
      [&] {
        scheduler->sleep([&] { return is_free() && !asleep_.contains(self); }, is_free);
        take_back();
      },
      take_back);
}

void OrderedCondition::notify_all() {
  EXPECT_TRUE(is_held());
  scheduler->point([] { return true; });
  asleep_.clear();
}

bool OrderedCondition::is_held() const { return levels > 0 && owner_ == scheduler->running(); }

}  // namespace decision_bounds
