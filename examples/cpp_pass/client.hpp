#pragma once

/// A client whose paid calls hold a share of each bound, and are counted whatever ends them.

#include <chrono>
#include <string>

#include "decision_bounds/native.hpp"
#include "endpoint.hpp"
#include "ledger.hpp"

namespace cpp_pass {

namespace native = decision_bounds::native;

/// Today's date in UTC.
std::chrono::sys_days utc_today();

/// Seconds of the clock that deadlines are read on.
double clock_s();

/// Shared by all threads. The endpoint and the ledger must outlive it, and so must the log.
class Client {
 public:
  Client(Endpoint& endpoint, Ledger& ledger, double daily_cost_cap_usd, native::Log& log);

  /// A call of a batch pass: waits for room in both bounds until the pass stops. Throws a
  /// `native::DecisionError` where a bound ends it, and what the endpoint throws.
  void decide(const std::string& request, native::RunBudget& pass);

  /// A call on its own: waits for room for `timeout_s` at most.
  void decide_within(const std::string& request, double timeout_s);

  native::DaySnapshot today() { return snapshot(spend_); }

 private:
  void call(const std::string& request, const native::PaidReply& dearest, native::HeldShare tokens,
            native::HeldShare usd);

  Endpoint& endpoint_;
  Ledger& ledger_;
  native::DailySpend spend_;
};

}  // namespace cpp_pass
