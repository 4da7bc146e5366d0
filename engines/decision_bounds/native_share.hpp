#pragma once

/// Shares in plain C++: the reply that settles one, and the scope that gives one back.

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#include "decision_bounds/share.hpp"

namespace decision_bounds::native {

/// What a bound reads of a reply.
struct PaidReply {
  bool cached = false;  ///< From the client's cache: nothing was paid for it.
  std::int64_t input_tokens = 0;
  double cost = 0.0;  ///< USD.
};

using GiveBack = std::function<void(const PaidReply* reply)>;

/// Holds a give-back function until it is taken, once.
class GiveBackSlot {
 public:
  GiveBackSlot() = default;
  explicit GiveBackSlot(GiveBack give_back)
      : give_back_(std::move(give_back)), held_(give_back_ != nullptr) {}

  /// The function for the first caller, of any thread; an empty one for all others.
  GiveBack exchange_for_none() {
    return held_.exchange(false) ? std::exchange(give_back_, nullptr) : nullptr;
  }

 private:
  GiveBack give_back_;
  std::atomic<bool> held_ = false;
};

/// A share that its scope gives back, without a reply, where nothing settled it before. May be
/// moved by the thread that owns it; may be settled by any. A give-back function of the caller's
/// own must not throw at the end of the scope; those of the bounds do not.
class HeldShare {
 public:
  HeldShare() = default;
  explicit HeldShare(GiveBack give_back) : share_{GiveBackSlot(std::move(give_back))} {}
  HeldShare(HeldShare&& other) noexcept : HeldShare(other.share_.give_back_.exchange_for_none()) {}
  HeldShare(const HeldShare&) = delete;
  HeldShare& operator=(const HeldShare&) = delete;
  ~HeldShare() { release(); }

  /// Counts the reply that ended the call and gives the share back. Only the first of `settle` and
  /// `release` does anything.
  void settle(const PaidReply& reply) { share_.settle(&reply); }

  /// Gives the share back without a reply: nothing is counted.
  void release() { share_.settle(nullptr); }

 private:
  Share<GiveBackSlot> share_;
};

}  // namespace decision_bounds::native
