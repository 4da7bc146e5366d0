#pragma once

/// What a pass has counted, and what a bound holds, read all at one moment.

#include <cstdint>
#include <string>

namespace decision_bounds::native {

/// What a pass has used against its limits.
struct Summary {
  std::int64_t calls{};
  std::int64_t cache_hits{};
  std::int64_t input_tokens{};
  double cost_usd{};  ///< Rounded to 6 decimals.
  std::int64_t max_calls{};
  std::int64_t max_tokens{};

  bool operator==(const Summary&) const = default;

  /// The mapping as text: {'calls': 40, 'cache_hits': 3, ...}.
  std::string text() const;
};

/// What the calls in flight hold of a bound, in its unit (input tokens or USD).
struct Holdings {
  std::int64_t holders{};    ///< Calls that hold a share.
  double amount{};           ///< The sum of the shares that are not infinite.
  std::int64_t unbounded{};  ///< Calls that hold an infinite share: one at most.

  bool operator==(const Holdings&) const = default;
};

}  // namespace decision_bounds::native
