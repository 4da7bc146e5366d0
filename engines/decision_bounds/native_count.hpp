#pragma once

/// The integers of the bounds in plain C++: what they count stops at the largest count.

#include <cmath>
#include <compare>
#include <concepts>
#include <cstdint>
#include <limits>
#include <utility>

namespace decision_bounds::native {

/// A 64-bit integer whose sums and differences end at the smallest and the largest count instead of
/// overflowing. Made of any integer; one beyond either end is that end.
class Count {
 public:
  constexpr Count() = default;
  constexpr Count(std::integral auto value)
      : value_(std::cmp_greater(value, largest) ? largest : static_cast<std::int64_t>(value)) {}

  constexpr explicit operator std::int64_t() const { return value_; }
  constexpr explicit operator double() const { return static_cast<double>(value_); }

  friend constexpr bool operator==(Count left, Count right) = default;
  friend constexpr auto operator<=>(Count left, Count right) {
    return left.value_ <=> right.value_;
  }

  friend constexpr Count operator+(Count left, Count right) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(left.value_, right.value_, &sum)) {
      return right.value_ > 0 ? largest : smallest;
    }
    return sum;
  }

  friend constexpr Count operator-(Count left, Count right) {
    std::int64_t difference = 0;
    if (__builtin_sub_overflow(left.value_, right.value_, &difference)) {
      return right.value_ < 0 ? largest : smallest;
    }
    return difference;
  }

 private:
  static constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
  static constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();

  std::int64_t value_ = 0;
};

/// The least `double` that is not below the count. A `double` is below it exactly where it is below
/// the count, so a comparison with it is one with the count, unrounded.
inline double least_double_from(Count count) {
  constexpr std::int64_t exact_limit = std::int64_t{1} << 53;
  constexpr double beyond_counts = 0x1p63;
  const auto nearest = static_cast<double>(count);
  const bool below = (count < -exact_limit || count > exact_limit) && nearest < beyond_counts &&
                     Count(static_cast<std::int64_t>(nearest)) < count;
  return below ? std::nextafter(nearest, beyond_counts) : nearest;
}

}  // namespace decision_bounds::native
