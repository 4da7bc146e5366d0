#pragma once

/// The daily cost cap in plain C++.

#include <chrono>
#include <concepts>
#include <exception>
#include <functional>
#include <optional>

#include "decision_bounds/daily_spend.hpp"
#include "decision_bounds/native_host.hpp"

namespace decision_bounds {

namespace native {

/// What ends a wait for room, besides room. Each may be absent; a deadline needs a clock.
struct Waits {
  std::optional<double> deadline{};  ///< A reading of `clock`.
  std::function<double()> clock{};   ///< Returns seconds, of a clock that is never set back.
  StopFunction stopping{};           ///< Returns true where the call's pass was asked to stop.
};

/// What a day has counted and what its calls in flight hold, all at one moment.
struct DaySnapshot {
  std::optional<std::chrono::sys_days> day{};  ///< The date of the last use; none before the first.
  double spent_usd{};                          ///< What was settled on that date.
  Holdings held{};                             ///< USD.

  bool operator==(const DaySnapshot&) const = default;
};

/// The host of the daily cap: its dates are days, not texts.
struct DailyNative : Native {
  using Text = std::chrono::sys_days;
  using DateFunction = std::function<std::chrono::sys_days()>;
  using Ledger = std::function<double(std::chrono::sys_days day)>;

  /// The share keeps a reference to its bound and a copy of this host.
  HeldShare make_share(decision_bounds::DailySpend<DailyNative>& spend, double held) const;
  void warn_of_error(const char* text, std::chrono::sys_days day,
                     const std::exception& error) const;
};

/// The bound of what the paid calls of one UTC day cost, continued from a ledger. One for all the
/// paid calls of a client, across days, used by any number of threads. It must outlive the shares
/// that it made, and the log must outlive it.
///
/// `today`, `ledger` and the functions of a call are called with the lock held, and must not use
/// the account.
class DailySpend {
 public:
  /// A day's calls may cost `cap_usd`. `today` returns the UTC date. `ledger` returns what was paid
  /// since a date, USD, and is asked once a date; without one, each date counts from 0. `log` takes
  /// the warnings of a cap that is reached and of a ledger that throws, which counts as 0.
  explicit DailySpend(double cap_usd, DailyNative::DateFunction today,
                      DailyNative::Ledger ledger = {}, Log* log = nullptr);

  /// What the paid calls of today cost so far, USD, without what the calls in flight hold.
  double spent() { return account_.spent(host_); }

  /// Admits a call that may cost what `bound` returns, USD (infinite where not known; asked again
  /// after each wait), or waits while the calls in flight hold the rest of the cap.
  ///
  /// Throws `DecisionBudgetExceeded` where the settled spend has reached the cap, and, only while
  /// it waits, `DecisionStopped` and `DecisionTimeout`. Then, and when `bound` or another function
  /// throws, nothing is held.
  HeldShare admit(std::invocable auto&& bound, const Waits& waits = {}) {
    return account_.admit(std::ref(bound), waits.deadline, waits.clock, waits.stopping, host_);
  }

  /// Counts what a reply cost without any share: an attempt that was sent and never read, but may
  /// be billed.
  void charge(const PaidReply& reply) { account_.charge(reply, host_); }

  friend DaySnapshot snapshot(DailySpend& spend);

 private:
  decision_bounds::DailySpend<DailyNative> account_;
  DailyNative host_;
};

/// Starts no day, and calls no function of the caller's.
DaySnapshot snapshot(DailySpend& spend);

}  // namespace native

extern template struct DailySpend<native::DailyNative>;

}  // namespace decision_bounds
