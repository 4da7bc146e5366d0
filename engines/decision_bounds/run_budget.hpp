#pragma once

/// The bound of one batch pass: its call slots, its input tokens, and whether it was asked to stop.

#include <array>

#include "decision_bounds/errors.hpp"
#include "decision_bounds/larger_smaller.hpp"

namespace decision_bounds {

/// The keys of a pass's summary, in order.
inline constexpr std::array<const char*, 6> summary_keys = {
    "calls", "cache_hits", "input_tokens", "cost_usd", "max_calls", "max_tokens"};

/// The decimals to which a summary rounds the cost.
inline constexpr int cost_decimals = 6;

/// One for each batch pass, shared by the threads that make its calls. A paid call holds a call
/// slot and the input tokens that it may use from `reserve` (or `hold`) until it ends with exactly
/// one `charge` or `release` of the same tokens. Tokens are infinite where not known.
///
/// The operations take the lock of `changed_` themselves, except those named `_locked`, whose
/// caller holds it. The lock is reentrant: a stop function may use the budget that asks it.
template <typename H>
struct RunBudget {
  using Count = typename H::Count;
  using Amount = typename H::Amount;

  Count max_calls{};     ///< The most paid calls: settled and in flight.
  Count max_tokens{};    ///< The most input tokens of the paid calls.
  Count calls{};         ///< Calls settled with a paid reply.
  Count input_tokens{};  ///< Input tokens of the paid replies.
  Amount cost{};         ///< Cost of the paid replies, USD.
  Count cache_hits{};    ///< Cached replies recorded.
  Count in_flight{};     ///< Calls admitted and not yet settled.
  typename H::StopFunction should_stop{};
  typename H::HeldRecord held_tokens_{};
  typename H::Condition changed_{};

  /// Whether the pass has been asked to stop. Takes no lock.
  bool stopping() const { return should_stop(); }

  /// Whether no call slot or no token is left.
  bool exhausted(const H& host = {}) {
    return host.locked(changed_, [&] { return exhausted_locked(); });
  }

  /// Calls in flight count against the call slots; the tokens they hold do not count here.
  bool exhausted_locked() const {
    return calls + in_flight >= max_calls || input_tokens >= max_tokens;
  }

  /// Admits a call that may use `tokens`, or waits while the calls in flight hold the tokens that
  /// are left. Raises `Refusal::stopped` where the pass was asked to stop, on entry or while it
  /// waits, and `Refusal::budget_exceeded` where no slot or no settled token is left; then, and
  /// when anything else fails, nothing is held.
  void reserve(const Amount& tokens = Amount(0.0), const H& host = {}) {
    if (stopping()) {
      host.refuse(Refusal::stopped, messages::stopped);
    }
    host.locked(changed_, [&] {
      for (;;) {
        if (exhausted_locked()) {
          host.refuse(Refusal::budget_exceeded, messages::budget_exhausted, summary_locked(host));
        }
        if (held_tokens_.admits(tokens, input_tokens, max_tokens)) {
          return take_locked(tokens);
        }
        host.wait(changed_, host.stop_function(*this));
      }
    });
  }

  /// As `reserve`; returns the share that gives slot and tokens back exactly once.
  typename H::HeldShare hold(const Amount& tokens, const H& host = {}) {
    reserve(tokens, host);
    return H::on_failure([&] { return host.make_share(*this, tokens); },
                         [&] { release(tokens, host); });
  }

  /// What a share of `tokens` runs when it is settled with the paid reply or none.
  void give_back(const Amount& tokens, typename H::MaybeReply reply, const H& host = {}) {
    if (reply) {
      charge(*reply, tokens, host);
    } else {
      release(tokens, host);
    }
  }

  /// Ends a call without a paid reply: gives back its slot and its tokens, and wakes the waiters.
  void release(const Amount& tokens = Amount(0.0), const H& host = {}) {
    host.locked(changed_, [&] {
      give_back_locked(tokens);
      host.notify_all(changed_);
    });
  }

  /// Counts a paid reply, gives back the slot and the tokens of its call, and wakes the waiters. A
  /// cached reply is only counted: it gives nothing back, whatever its call holds. When a property
  /// of the reply cannot be read, the steps before it stay done.
  void charge(typename H::Reply result, const Amount& tokens = Amount(0.0), const H& host = {}) {
    host.locked(changed_, [&] {
      if (host.cached(result)) {
        cache_hits = cache_hits + 1;
        return;
      }
      give_back_locked(tokens);
      calls = calls + 1;
      input_tokens = input_tokens + host.input_tokens(result);
      cost = cost + host.cost(result);
      host.notify_all(changed_);
    });
  }

  /// What the pass has used against its limits; what is in flight is no part of it.
  typename H::Summary summary(const H& host = {}) {
    return host.locked(changed_, [&] { return summary_locked(host); });
  }

  /// The cost, in USD, is rounded to 6 decimals; a tie goes to the even digit.
  typename H::Summary summary_locked(const H& host = {}) const { return host.summary(*this); }

 private:
  void take_locked(const Amount& tokens) {
    const Count before = in_flight;
    H::on_failure(
        [&] {
          in_flight = in_flight + 1;
          held_tokens_.take_or_nothing(tokens);
        },
        [&] { in_flight = before; });
  }

  void give_back_locked(const Amount& tokens) {
    in_flight = larger(0, in_flight - 1);
    held_tokens_.give_back(tokens);
  }
};

}  // namespace decision_bounds
