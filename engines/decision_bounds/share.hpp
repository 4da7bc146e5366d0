#pragma once

/// What one admitted call holds of one bound, and gives back exactly once.

namespace decision_bounds {

/// Holds a give-back function from the moment a bound admits a call until the call ends. It knows
/// nothing of the bound: the function does. The slot is the host's; its `exchange_for_none` takes
/// the function out in one step, whatever other threads do.
template <typename GiveBackSlot>
struct Share {
  /// Called with the paid reply or none; empty once the share has been given back.
  GiveBackSlot give_back_{};

  /// Gives the share back: with the paid reply that ended the call, or with none. Only the first
  /// call does anything, also when several threads settle at once. An error of the give-back
  /// function passes through; the share is given back all the same and is not tried again.
  template <typename MaybeReply>
  void settle(MaybeReply reply) {
    if (auto give_back = give_back_.exchange_for_none()) {
      give_back(reply);
    }
  }
};

}  // namespace decision_bounds
