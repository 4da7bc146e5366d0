#pragma once

/// The rounding of a cost to 6 decimals, without a detour through text.

#include <cmath>
#include <optional>

namespace decision_bounds {

/// The number of 6 decimals that is nearest to `usd`, as the exact value lies, ties to the even
/// digit. Nothing where `usd` is not finite, or so large (from $4.5 billion) that a double does not
/// hold a million times it to the half.
inline std::optional<double> rounded_to_micros(double usd) {
  constexpr double micros_per_usd = 1e6;
  constexpr double halves_end = 4503599627370496.0;  // 2 to the 52nd
  const double micros = usd * micros_per_usd;
  if (!(std::fabs(micros) < halves_end)) {
    return std::nullopt;
  }
  // The product is `micros + lost` exactly.
  const double lost = std::fma(usd, micros_per_usd, -micros);
  double nearest = std::nearbyint(micros);
  // What was lost matters only where `micros` lies exactly between two integers.
  const double above = micros - nearest;
  if (above == 0.5 && lost > 0.0) {
    nearest += 1.0;
  } else if (above == -0.5 && lost < 0.0) {
    nearest -= 1.0;
  }
  return nearest / micros_per_usd;
}

}  // namespace decision_bounds
