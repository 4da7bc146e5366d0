#pragma once

/// The reply that ends a paid call.

#include <cstdint>

namespace decision_bounds::native {

/// What a bound reads of a reply.
struct PaidReply {
  bool cached = false;  ///< From the client's cache: nothing was paid for it.
  std::int64_t input_tokens = 0;
  double cost = 0.0;  ///< USD.

  bool operator==(const PaidReply&) const = default;
};

}  // namespace decision_bounds::native
