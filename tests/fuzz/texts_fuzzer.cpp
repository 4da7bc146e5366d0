// Numbers and dates as text, roundings and counts, beside the C library and wider integers.

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "decision_bounds/native_count.hpp"
#include "decision_bounds/rounding.hpp"
#include "decision_bounds/text.hpp"
#include "fuzzer.hpp"

namespace decision_bounds {

namespace {

using native::Count;

std::string printed(double value, int decimals) {
  char text[400];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

void check_number(double value, int decimals) {
  const std::string shortest = shortest_text(value);
  if (!std::isfinite(value)) {
    require(shortest == fixed_text(value, decimals));
    require(!rounded_to_micros(value));
    return;
  }
  require(std::strtod(shortest.c_str(), nullptr) == value);
  require(fixed_text(value, decimals) == printed(value, decimals));
  const double nearest = rounded(value, decimals);
  require(nearest == std::strtod(printed(value, decimals).c_str(), nullptr));
  if (const auto micros = rounded_to_micros(value)) {
    require(*micros == rounded(value, 6));
  }
}

void check_date(int day) {
  const std::chrono::sys_days date{std::chrono::days(day)};
  int year = 0;
  unsigned month = 0;
  unsigned day_of_month = 0;
  std::sscanf(date_text(date).c_str(), "%d-%u-%u", &year, &month, &day_of_month);
  const std::chrono::year_month_day read{std::chrono::year{year}, std::chrono::month{month},
                                         std::chrono::day{day_of_month}};
  require(std::chrono::sys_days(read) == date);
}

void check_counts(std::int64_t left, std::int64_t right) {
  using Limits = std::numeric_limits<std::int64_t>;
  const auto is_nearest = [](Count count, __int128 exact) {
    const __int128 nearest = exact < Limits::min()   ? Limits::min()
                             : exact > Limits::max() ? Limits::max()
                                                     : exact;
    return static_cast<std::int64_t>(count) == nearest;
  };
  require(is_nearest(Count(left) + Count(right), __int128{left} + right));
  require(is_nearest(Count(left) - Count(right), __int128{left} - right));
  const double least = native::least_double_from(left);
  const double below = std::nextafter(least, -std::numeric_limits<double>::infinity());
  // A `long double` holds both exactly.
  require(static_cast<long double>(least) >= static_cast<long double>(left));
  require(static_cast<long double>(below) < static_cast<long double>(left));
}

}  // namespace

void fuzz(FuzzedDataProvider& data) {
  const auto left = data.ConsumeIntegral<std::int64_t>();
  const auto right = data.ConsumeIntegral<std::int64_t>();
  const int decimals = data.ConsumeIntegralInRange(0, 9);
  double value = 0.0;
  std::memcpy(&value, &left, sizeof(value));
  check_number(value, decimals);
  // As sums of money are: of few digits, and near what lies between two of them.
  check_number(static_cast<double>(right) / 1e7, decimals);
  check_date(data.ConsumeIntegralInRange(-4'000'000, 4'000'000));
  check_counts(left, right);
}

}  // namespace decision_bounds
