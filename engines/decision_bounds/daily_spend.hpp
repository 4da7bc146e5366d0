#pragma once

/// The bound of what the paid calls of one UTC day cost, continued from a ledger.

#include "decision_bounds/errors.hpp"

namespace decision_bounds {

/// One for all the paid calls of a client, across days. A call holds what it may cost (USD) from
/// `admit` until its share is settled, and is counted on the day on which it settles; shares are
/// kept across midnight. The date and the ledger are functions of the caller, asked with the lock
/// held: neither may use the object that asks.
///
/// The operations take the lock of `changed_` themselves, except those named `_locked` and
/// `spent_since`, whose caller holds it.
template <typename H>
struct DailySpend {
  using Amount = typename H::Amount;
  using Text = typename H::Text;
  using Flag = typename H::Flag;

  Amount cap{};                      ///< What the calls of one day may cost, USD.
  typename H::DateFunction today{};  ///< Returns today's UTC date, compared only for equality.
  typename H::Ledger ledger{};       ///< Returns what was paid since a date, USD; may be absent.
  typename H::Condition changed_{};
  typename H::HeldRecord held_{};  ///< What the calls in flight hold, USD.
  Text day_{};                     ///< The date that `cost_` counts; empty before the first.
  Amount cost_{};                  ///< What the calls settled on that date cost, USD.
  Flag capped_{};                  ///< Whether that date's warning has been logged.

  /// What the paid calls of today cost so far, USD, without what the calls in flight hold. An
  /// error of the date function passes through, here and in all that starts a day.
  Amount spent(const H& host = {}) {
    return host.locked(changed_, [&] { return today_locked(host); });
  }

  /// Today's settled spend. Starts a new day, from the ledger, where the date has changed.
  Amount today_locked(const H& host = {}) {
    const Text date = today();
    if (day_ != date) {
      const Amount cost = spent_since(date, host);
      day_ = date;
      cost_ = cost;
      capped_ = Flag(false);
    }
    return cost_;
  }

  /// What the ledger says that the calls since `day` cost, USD. A ledger that fails, or is absent,
  /// counts as 0; the failure is logged.
  Amount spent_since(const Text& day, const H& host = {}) const {
    if (!ledger) {
      return Amount(0.0);
    }
    Amount cost(0.0);
    H::attempt(
        [&] { cost = H::to_amount(ledger(day)); },
        [&](const auto& error) { host.warn_of_error(messages::ledger_warning, day, error); });
    return cost;
  }

  /// Admits a call that may cost `bound()` USD (infinite where not known, and asked again after
  /// each wait), or waits while the calls in flight hold the rest of the cap.
  ///
  /// Raises `Refusal::budget_exceeded` where the settled spend has reached the cap (the first
  /// refusal of a day is logged) and, only while it waits, `Refusal::stopped` where `stopping` says
  /// so and `Refusal::timeout` where `clock` has reached `deadline` (seconds; absent: no limit).
  /// Then, and when anything else fails, nothing is held.
  typename H::HeldShare admit(const typename H::BoundFunction& bound,
                              const typename H::Deadline& deadline, const typename H::Clock& clock,
                              const typename H::StopFunction& stopping, const H& host = {}) {
    Amount cost{};
    bool refused = false;
    bool first = false;
    auto share = host.locked(changed_, [&]() -> typename H::HeldShare {
      for (;;) {
        cost = today_locked(host);
        if (!(cost < cap)) {
          refused = true;
          first = !H::truth(capped_);
          capped_ = Flag(true);
          return {};
        }
        const Amount held = bound();
        if (held_.admits(held, cost, cap)) {
          return take_locked(held, host);
        }
        host.wait(changed_, stopping, deadline, clock);
      }
    });
    if (refused) {
      if (first) {
        host.warn(messages::cap_warning, cost, cap);
      }
      host.refuse(Refusal::budget_exceeded, messages::cap_reached, cost, cap);
    }
    return share;
  }

  /// Counts what a reply cost without any share: an attempt that was sent and never read, but may
  /// be billed. Wakes the waiters.
  void charge(typename H::Reply reply, const H& host = {}) {
    host.locked(changed_, [&] {
      count_locked(reply, host);
      host.notify_all(changed_);
    });
  }

  /// What a share of `held` USD runs when it is settled with the paid reply or none. The amount is
  /// given back and the waiters are woken in every case; where the date or the reply's cost cannot
  /// be read, the cost is not counted and the error goes on.
  void give_back(const Amount& held, typename H::MaybeReply reply, const H& host = {}) {
    host.locked(changed_, [&] {
      const auto end_call = [&] {
        held_.give_back(held);
        host.notify_all(changed_);
      };
      if (reply) {
        H::on_failure([&] { count_locked(*reply, host); }, end_call);
      }
      end_call();
    });
  }

 private:
  void count_locked(typename H::Reply reply, const H& host) {
    today_locked(host);
    cost_ = cost_ + host.cost(reply);
  }

  typename H::HeldShare take_locked(const Amount& held, const H& host) {
    held_.take_or_nothing(held);
    return H::on_failure([&] { return host.make_share(*this, held); },
                         [&] { held_.give_back(held); });
  }
};

}  // namespace decision_bounds
