#include "decision_bounds/text.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <locale>
#include <sstream>

namespace decision_bounds {

namespace {

/// Room for the largest double in fixed-point notation: sign, digits, point and decimals.
using Buffer = std::array<char, std::numeric_limits<double>::max_exponent10 + 32>;

std::string not_finite_text(double value) {
  return std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
}

}  // namespace

std::string shortest_text(double value) {
  if (!std::isfinite(value)) {
    return not_finite_text(value);
  }
  Buffer buffer;
  const auto format = [&](std::chars_format form) {
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, form).ptr;
    return std::string(buffer.data(), end);
  };
  std::string scientific = format(std::chars_format::scientific);
  const int exponent = std::atoi(scientific.c_str() + scientific.find('e') + 1);
  if (exponent < -4 || exponent >= 16) {
    return scientific;
  }
  std::string positional = format(std::chars_format::fixed);
  return positional.find('.') == std::string::npos ? positional + ".0" : positional;
}

std::string fixed_text(double value, int decimals) {
  if (!std::isfinite(value)) {
    return not_finite_text(value);
  }
  Buffer buffer;
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                 std::chars_format::fixed, decimals)
                       .ptr;
  return {buffer.data(), end};
}

std::string date_text(std::chrono::sys_days day) {
  const std::chrono::year_month_day date(day);
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02u", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return text.data();
}

double rounded(double value, int decimals) {
  constexpr double all_integers_from = 4503599627370496.0;  // 2 to the 52nd: no decimals above
  if (!(std::fabs(value) < all_integers_from)) {
    return value;
  }
  // Read back by a stream: `from_chars` of a double is missing in libc++, and `strtod` follows the
  // locale.
  std::istringstream text(fixed_text(value, decimals));
  text.imbue(std::locale::classic());
  double nearest = 0.0;
  text >> nearest;
  return nearest;
}

}  // namespace decision_bounds
