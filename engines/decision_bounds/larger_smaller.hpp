#pragma once

/// The larger and the smaller of two numbers, with ties and not-a-numbers decided.

#include <utility>

namespace decision_bounds {

/// `second` where it is strictly greater, otherwise `first` (also where either is not a number).
template <typename First, typename Second>
auto larger(First&& first, Second&& second) -> decltype(first - second) {
  if (second > first) {
    return std::forward<Second>(second);
  }
  return std::forward<First>(first);
}

/// `second` where it is strictly less, otherwise `first` (also where either is not a number).
template <typename First, typename Second>
auto smaller(First&& first, Second&& second) -> decltype(first - second) {
  if (second < first) {
    return std::forward<Second>(second);
  }
  return std::forward<First>(first);
}

}  // namespace decision_bounds
