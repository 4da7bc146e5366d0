#pragma once

/// The one place where a call that finds no room in a bound sleeps.

#include "decision_bounds/errors.hpp"
#include "decision_bounds/larger_smaller.hpp"

namespace decision_bounds {

/// The longest that one wait sleeps, seconds.
inline constexpr double poll_interval_s = 0.1;

/// Sleeps on `changed` until it is notified, or for the poll interval (`host.poll_s()`) at most, so
/// that a stop and a deadline, which nothing signals, are seen in time. The caller holds the lock
/// of `changed`, which is given up only while asleep, and decides again after each return.
///
/// Raises `Refusal::stopped` where `stopping` says so, then `Refusal::timeout` where `deadline` and
/// `clock` are both given and the clock (seconds) has reached the deadline; either before any
/// sleep. Errors of `stopping` and `clock` pass through.
template <typename H>
void wait(typename H::Condition& changed, const typename H::StopFunction& stopping,
          const typename H::Deadline& deadline, const typename H::Clock& clock, const H& host) {
  if (stopping()) {
    host.refuse(Refusal::stopped, messages::stopped);
  }
  typename H::Amount timeout = host.poll_s();
  if (deadline && clock) {
    const typename H::Amount left = *deadline - clock();
    if (left <= 0) {
      host.refuse(Refusal::timeout, messages::timeout);
    }
    timeout = smaller(timeout, left);
  }
  changed.wait(timeout);
}

}  // namespace decision_bounds
