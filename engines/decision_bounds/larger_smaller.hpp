#pragma once

/// The larger and the smaller of two numbers, with ties and not-a-numbers decided.

namespace decision_bounds {

/// `second` where it is strictly greater, otherwise `first` (also where either is not a number).
template <typename First, typename Second>
auto larger(const First& first, const Second& second) -> decltype(first - second) {
  if (second > first) {
    return second;
  }
  return first;
}

/// `second` where it is strictly less, otherwise `first` (also where either is not a number).
template <typename First, typename Second>
auto smaller(const First& first, const Second& second) -> decltype(first - second) {
  if (second < first) {
    return second;
  }
  return first;
}

}  // namespace decision_bounds
