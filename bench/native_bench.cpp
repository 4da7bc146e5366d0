/// The bounds in plain C++: beside bare lock pairs of the same locks, beside a semaphore, on one
/// thread and on many, and after long use.

#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>

#include "decision_bounds/native.hpp"

namespace {

namespace native = decision_bounds::native;

constexpr std::int64_t unlimited = std::int64_t{1} << 52;
constexpr double call_tokens = 700.0;
constexpr double call_usd = 0.05;
constexpr native::PaidReply reply = {.cached = false, .input_tokens = 700, .cost = call_usd};

/// What a day's calls are counted in, as it is after so much use. Shared by the threads of a run.
class Client {
 public:
  Client(std::int64_t calls, std::int64_t features, std::int64_t days) {
    for (std::int64_t call = 0; call < calls; ++call) {
      budget.reserve(call_tokens);
      budget.charge(reply, call_tokens);
    }
    for (std::int64_t kind = 0; kind < features; ++kind) {
      rates.learn(2000, "feature " + std::to_string(kind), reply);
    }
    for (std::int64_t day = 0; day < days; ++day) {
      today_ += std::chrono::days(1);
      spend.charge(reply);
    }
  }

  native::RunBudget budget{.max_calls = unlimited, .max_tokens = unlimited};
  native::RequestRates rates;
  native::DailySpend spend{1e15, [this] { return today_; }};
  native::Condition changed;
  std::mutex mutex;
  std::counting_semaphore<> semaphore{4096};
  const std::string feature = "feature 0";

 private:
  std::chrono::sys_days today_{};
};

void reserve_charge(Client& client) {
  client.budget.reserve(call_tokens);
  client.budget.charge(reply, call_tokens);
}

void hold_settle(Client& client) {
  native::HeldShare share = client.budget.hold(call_tokens);
  share.settle(reply);
}

void admit_settle(Client& client) {
  native::HeldShare share = client.spend.admit([] { return call_usd; });
  share.settle(reply);
}

void cost(Client& client) { benchmark::DoNotOptimize(client.rates.cost(2000, client.feature)); }

void learn(Client& client) { client.rates.learn(2000, client.feature, reply); }

void spent(Client& client) { benchmark::DoNotOptimize(client.spend.spent()); }

void two_pairs(Client& client) {
  for (int pair = 0; pair < 2; ++pair) {
    client.changed.lock();
    client.changed.unlock();
  }
}

void one_pair(Client& client) {
  client.mutex.lock();
  client.mutex.unlock();
}

void semaphore_pair(Client& client) {
  client.semaphore.acquire();
  client.semaphore.release();
}

struct Case {
  const char* name;
  void (*operation)(Client&);
};

constexpr std::array cases = {
    Case{"reserve + charge", reserve_charge},
    Case{"hold + settle", hold_settle},
    Case{"admit + settle", admit_settle},
    Case{"cost", cost},
    Case{"learn", learn},
    Case{"two pairs of the condition's lock", two_pairs},
    Case{"one pair of the mutex", one_pair},
    Case{"semaphore", semaphore_pair},
};

constexpr std::array growing = {
    Case{"reserve + charge", reserve_charge},
    Case{"hold + settle", hold_settle},
    Case{"cost", cost},
    Case{"learn", learn},
    Case{"spent", spent},
};

benchmark::internal::Benchmark* add(const std::string& when, const Case& each, Client& client) {
  return benchmark::RegisterBenchmark((when + "/" + each.name).c_str(),
                                      [&client, each](benchmark::State& state) {
                                        for (auto _ : state) {
                                          each.operation(client);
                                        }
                                      })
      ->UseRealTime();
}

}  // namespace

int main(int argument_count, char** arguments) {
  // As long as a process has had one thread only, its mutexes may do without atomic instructions.
  std::thread([] {}).join();
  Client fresh(0, 1, 0);
  Client used(10'000'000, 100'000, 10'000);
  for (const Case& each : cases) {
    add("threads", each, fresh)->Threads(1)->Threads(2)->Threads(8)->Threads(64);
  }
  for (const Case& each : growing) {
    add("fresh", each, fresh);
    add("used", each, used);
  }
  benchmark::Initialize(&argument_count, arguments);
  benchmark::RunSpecifiedBenchmarks();
}
