#pragma once

/// What a request may cost and use before its reply says, learned from the paid replies.

#include <limits>

namespace decision_bounds {

/// Shared by all the calls of a client. A request's cost is known once its feature (the kind of
/// request) has had a reply; its input tokens once any feature has. Until then they are infinite,
/// so that the first call of a kind holds all that is left of a bound and runs alone.
///
/// Each operation holds the lock from start to end; the replies are read under it.
template <typename H>
struct RequestRates {
  using Count = typename H::Count;
  using Amount = typename H::Amount;
  using Text = typename H::Text;

  typename H::Mutex lock_{};
  typename H::ChargesRecord cost_{};    ///< USD, over all features together.
  typename H::ChargesRecord tokens_{};  ///< Input tokens, over all features together.
  typename H::Features features_{};     ///< The features that have had a reply.

  /// The most that a request of `size` bytes may cost, USD; infinite while no reply of `feature`
  /// has been taken in.
  Amount cost(const Count& size, const Text& feature, const H& host = {}) {
    return host.locked(lock_,
                       [&] { return features_.contains(feature) ? cost_.bound(size) : unknown(); });
  }

  /// The most input tokens that a request of `size` bytes may use; infinite while no reply has
  /// been taken in.
  Amount tokens(const Count& size, const H& host = {}) {
    return host.locked(lock_, [&] { return features_.empty() ? unknown() : tokens_.bound(size); });
  }

  /// Takes in what the paid reply to a request of `size` bytes cost and used. When a property of
  /// the reply cannot be read, the steps before it stay done: the feature is known.
  void learn(const Count& size, const Text& feature, typename H::Reply reply, const H& host = {}) {
    host.locked(lock_, [&] {
      features_.insert(feature);
      cost_.learn(size, host.cost(reply));
      tokens_.learn(size, H::amount(host.input_tokens(reply)));
    });
  }

 private:
  static Amount unknown() { return Amount(std::numeric_limits<double>::infinity()); }
};

}  // namespace decision_bounds
