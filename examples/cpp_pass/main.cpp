/// A batch pass of paid calls by many threads, and a call on its own beside it, within three
/// bounds.
///
/// usage: cpp_pass LEDGER [CAP_USD]    (exit status: 0 done, 1 the ledger failed, 2 usage)

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client.hpp"
#include "decision_bounds/version.hpp"

namespace {

using namespace cpp_pass;

constexpr int thread_count = 16;
constexpr int request_count = 200;

std::atomic<bool> interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

struct StandardError : native::Log {
  void warning(const std::string& text) override { std::fprintf(stderr, "%s\n", text.c_str()); }
};

/// How the calls ended, by name. Any thread may count.
class Ends {
 public:
  void count(const std::string& end) {
    const std::lock_guard held(lock_);
    ++calls_[end];
  }
  void print() {
    const std::lock_guard held(lock_);
    for (const auto& [end, calls] : calls_) {
      std::printf("%4d %s\n", calls, end.c_str());
    }
  }

 private:
  std::mutex lock_;
  std::map<std::string, int> calls_;
};

/// Makes a call and counts how it ended. Throws what is no such end.
void count_end(Ends& ends, const auto& call) {
  try {
    call();
    ends.count("answered");
  } catch (const native::DecisionBudgetExceeded&) {
    ends.count("not made: a bound is full");
  } catch (const native::DecisionTimeout&) {
    ends.count("not made: no room before the deadline");
  } catch (const native::DecisionStopped&) {
    ends.count("not made: stopped");
  } catch (const Refused&) {
    ends.count("refused by the endpoint: not billed");
  } catch (const AnswerLost&) {
    ends.count("answer lost: counted at its dearest");
  }
}

int run(const char* ledger_file, double cap_usd) {
  Endpoint endpoint;
  Ledger ledger(ledger_file);
  StandardError log;
  Client client(endpoint, ledger, cap_usd, log);
  native::RunBudget pass{
      .max_calls = 150, .max_tokens = 20'000, .should_stop = [] { return interrupted.load(); }};
  Ends ends;
  std::atomic<int> next = 0;
  std::atomic<bool> failed = false;

  // What no call is expected to end with, a ledger's failure say, ends the pass.
  const auto watched = [&failed](const auto& work) {
    try {
      work();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      failed = true;
    }
  };
  const auto decide_requests = [&] {
    for (int number = next++; number < request_count && !failed; number = next++) {
      count_end(ends, [&] { client.decide("triage: request " + std::to_string(number), pass); });
    }
  };
  std::vector<std::thread> threads(thread_count);
  for (std::thread& thread : threads) {
    thread = std::thread([&] { watched(decide_requests); });
  }
  Ends tool;
  watched(
      [&] { count_end(tool, [&] { client.decide_within("route: a request of its own", 0.5); }); });
  for (std::thread& thread : threads) {
    thread.join();
  }

  const native::DaySnapshot today = client.today();
  std::printf("decision_bounds %s: %s\n", DECISION_BOUNDS_VERSION, pass.summary().text().c_str());
  ends.print();
  std::printf("a call on its own:\n");
  tool.print();
  std::printf("counted today $%.6f of $%.2f, billed in this run $%.6f, held $%.6f by %lld calls\n",
              today.spent_usd, cap_usd, endpoint.billed_usd(), today.held.amount,
              static_cast<long long>(today.held.holders));
  return failed ? 1 : 0;
}

}  // namespace

int main(int argument_count, char** arguments) {
  double cap_usd = 0.20;
  char* end = nullptr;
  if (argument_count == 3) {
    cap_usd = std::strtod(arguments[2], &end);
  }
  const bool is_cap_wrong = end != nullptr && (end == arguments[2] || *end != '\0');
  if (argument_count < 2 || argument_count > 3 || is_cap_wrong) {
    std::fprintf(stderr, "usage: cpp_pass LEDGER [CAP_USD]\n");
    return 2;
  }
  std::signal(SIGINT, [](int) { interrupted = true; });
  try {
    return run(arguments[1], cap_usd);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
