#pragma once

/// Numbers and dates as text, independent of the locale and equal to the interpreter's byte for
/// byte.

#include <chrono>
#include <string>

namespace decision_bounds {

/// The fewest significant digits that read back to the same value: 0.0, 12.5, 1e-05, 1e+16, inf.
std::string shortest_text(double value);

/// Fixed-point notation with so many decimals, rounded as the exact value lies, ties to even.
std::string fixed_text(double value, int decimals);

/// The date as YYYY-MM-DD.
std::string date_text(std::chrono::sys_days day);

/// The nearest number of so many decimals, as the exact value lies, ties to the even digit.
double rounded(double value, int decimals);

}  // namespace decision_bounds
