#pragma once

/// Shares in plain C++: what a call holds of a bound, given back by its scope at the latest.

#include <array>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <new>
#include <type_traits>

#include "decision_bounds/native_reply.hpp"
#include "decision_bounds/share.hpp"

namespace decision_bounds::native {

/// A function that is called with the reply, or none, that ended a call. Of a few words that can be
/// copied as bytes, and kept in place: a share allocates nothing.
class GiveBack {
 public:
  GiveBack() = default;

  template <std::invocable<const PaidReply*> Function>
  requires std::is_trivially_copyable_v<Function> && std::is_trivially_destructible_v<Function>
  GiveBack(Function function)
      : call_([](const std::byte* kept, const PaidReply* reply) {
          (*std::launder(reinterpret_cast<const Function*>(kept)))(reply);
        }) {
    static_assert(sizeof(Function) <= sizeof(kept_) && alignof(Function) <= alignof(void*));
    ::new (kept_.data()) Function(function);
  }

  explicit operator bool() const { return call_ != nullptr; }
  void operator()(const PaidReply* reply) const { call_(kept_.data(), reply); }

 private:
  void (*call_)(const std::byte* kept, const PaidReply* reply) = nullptr;
  alignas(void*) std::array<std::byte, 4 * sizeof(void*)> kept_;
};

/// A give-back function that was taken from its slot, or none. It is called where it lies: a copy
/// would cost a fifth of a hold and a settle.
class TakenGiveBack {
 public:
  TakenGiveBack() = default;
  explicit TakenGiveBack(const GiveBack& taken) : taken_(&taken) {}

  explicit operator bool() const { return taken_ != nullptr; }
  void operator()(const PaidReply* reply) const { (*taken_)(reply); }

  /// A copy, for another slot.
  GiveBack copy() const { return taken_ != nullptr ? *taken_ : GiveBack(); }

 private:
  const GiveBack* taken_ = nullptr;
};

/// Holds a give-back function until it is taken, once.
class GiveBackSlot {
 public:
  GiveBackSlot() = default;
  explicit GiveBackSlot(const GiveBack& give_back) { put(give_back); }

  /// Holds `give_back` from now on. No other thread may use the slot meanwhile.
  void put(const GiveBack& give_back) {
    give_back_ = give_back;
    held_.store(static_cast<bool>(give_back), std::memory_order_relaxed);
  }

  /// The function for the first caller, of any thread; none for all others. The slot must outlive
  /// its use.
  TakenGiveBack exchange_for_none() {
    // The load spares the scope of a settled share the exchange.
    if (held_.load(std::memory_order_relaxed) && held_.exchange(false)) {
      return TakenGiveBack(give_back_);
    }
    return {};
  }

 private:
  GiveBack give_back_;
  std::atomic<bool> held_ = false;
};

/// A share that its scope gives back, without a reply, where nothing settled it before. It refers
/// to its bound, which must outlive it. May be moved by the thread that owns it, and settled by
/// any; what settles it must be done before its scope ends or another share is assigned to it. A
/// give-back function of the caller's own must throw at neither; those of the bounds do not.
class [[nodiscard]] HeldShare {
 public:
  HeldShare() = default;
  explicit HeldShare(const GiveBack& give_back) : share_{GiveBackSlot(give_back)} {}
  HeldShare(HeldShare&& other) noexcept
      : HeldShare(other.share_.give_back_.exchange_for_none().copy()) {}
  HeldShare(const HeldShare&) = delete;
  HeldShare& operator=(const HeldShare&) = delete;
  ~HeldShare() { release(); }

  /// Releases what it held before.
  HeldShare& operator=(HeldShare&& other) noexcept {
    const GiveBack taken = other.share_.give_back_.exchange_for_none().copy();
    release();
    share_.give_back_.put(taken);
    return *this;
  }

  /// Counts the reply that ended the call and gives the share back. Only the first of `settle` and
  /// `release` does anything.
  void settle(const PaidReply& reply) { share_.settle(&reply); }

  /// Gives the share back without a reply: nothing is counted.
  void release() { share_.settle(nullptr); }

 private:
  Share<GiveBackSlot> share_;
};

}  // namespace decision_bounds::native
