#pragma once

/// The dearest charge seen so far, and what it says of the next one.

#include "decision_bounds/larger_smaller.hpp"

namespace decision_bounds {

/// The most that one paid reply came to, in USD or in input tokens, as a whole and per byte of its
/// request. Neither maximum ever falls. The owner's lock guards the record.
template <typename H>
struct Charges {
  using Count = typename H::Count;
  using Amount = typename H::Amount;

  Amount per_byte{};
  Amount per_call{};

  /// The most that a request of `size` bytes may come to: no less than the dearest charge, and for
  /// a request larger than those seen, its size at the dearest rate per byte.
  Amount bound(const Count& size) const { return larger(per_byte * H::amount(size), per_call); }

  /// Takes in what the reply to a request of `size` bytes came to. A request of less than one byte
  /// counts as one byte. A charge that is not a number changes nothing.
  void learn(const Count& size, const Amount& charge) {
    const Count divisor = size >= 1 ? size : Count(1);
    per_byte = larger(per_byte, charge / H::amount(divisor));
    per_call = larger(per_call, charge);
  }
};

}  // namespace decision_bounds
