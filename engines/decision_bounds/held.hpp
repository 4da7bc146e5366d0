#pragma once

/// The tally of what the calls in flight hold of one bound, and the rule of admission.

#include "decision_bounds/larger_smaller.hpp"

namespace decision_bounds {

/// What the admitted calls hold, in the unit of the bound that owns the record (USD or input
/// tokens). A share is unbounded, because what its call may use is not known, exactly when it is
/// infinite. The owner calls every operation with its own lock held.
template <typename H>
struct Held {
  using Count = typename H::Count;
  using Amount = typename H::Amount;

  Count holders{};    ///< Admitted calls that hold a share, bounded or not.
  Amount amount{};    ///< The sum of the bounded shares.
  Count unbounded{};  ///< Holders of an unbounded share.

  /// Whether a call that would hold `share` may start now, where the settled calls `used` so much
  /// of `limit`. A call is admitted while any room is left, whatever its own share, but an
  /// unbounded share runs alone. Changes nothing.
  bool admits(const Amount& share, const Amount& used, const Amount& limit) const {
    if (H::truth(unbounded)) {
      return false;
    }
    if (H::is_infinite(share) && H::truth(holders)) {
      return false;
    }
    return used + amount < limit;
  }

  /// Adds the share of a call just admitted.
  void take(const Amount& share) {
    holders = holders + 1;
    if (H::is_infinite(share)) {
      unbounded = unbounded + 1;
    } else {
      amount = amount + share;
    }
  }

  /// As `take`, but a share that cannot be added leaves the record as it was: nothing is stored
  /// before all that can fail is done.
  void take_or_nothing(const Amount& share) {
    const Count more = holders + 1;
    if (H::is_infinite(share)) {
      unbounded = unbounded + 1;
    } else {
      amount = amount + share;
    }
    holders = more;
  }

  /// Removes the share that an ending call took. No field goes below zero.
  void give_back(const Amount& share) {
    holders = larger(0, holders - 1);
    if (H::is_infinite(share)) {
      unbounded = larger(0, unbounded - 1);
    } else {
      amount = larger(0.0, amount - share);
    }
    if (!H::truth(holders)) {
      // With no holder the sum is 0; what else is left is the rounding of the subtractions.
      amount = Amount(0.0);
    }
  }
};

}  // namespace decision_bounds
