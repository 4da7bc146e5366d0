// Numbers as text; what is expected is what an interpreter of 3.10 answers for the same value.

#include "decision_bounds/text.hpp"

#include <limits>
#include <locale>
#include <utility>

#include "scripted_host.hpp"

namespace decision_bounds {

TEST(Text, ShortestTextReadsBackToTheSameValue) {
  const std::pair<double, const char*> cases[] = {
      {0.0, "0.0"},
      {12.5, "12.5"},
      {0.1 + 0.2, "0.30000000000000004"},
      {0.0001, "0.0001"},
      {1e-05, "1e-05"},
      {5e-324, "5e-324"},
      {1e15, "1000000000000000.0"},
      {9999999999999998.0, "9999999999999998.0"},
      {1e16, "1e+16"},
      {1.7976931348623157e308, "1.7976931348623157e+308"},
      {unknown, "inf"},
      {-unknown, "-inf"},
      {not_a_number, "nan"}};
  for (const auto& [value, text] : cases) {
    EXPECT_EQ(shortest_text(value), text);
  }
}

TEST(Text, FixedTextRoundsAsTheExactValueLies) {
  // The first two are ties; the next two lie just below and just above what looks like one.
  const std::pair<double, const char*> cases[] = {
      {0.03125, "0.0312"}, {0.09375, "0.0938"},   {0.00015, "0.0001"},
      {1.00005, "1.0001"}, {-0.00001, "-0.0000"}, {1e22, "10000000000000000000000.0000"},
      {unknown, "inf"},    {-not_a_number, "nan"}};
  for (const auto& [value, text] : cases) {
    EXPECT_EQ(fixed_text(value, 4), text);
  }
  EXPECT_EQ(fixed_text(-std::numeric_limits<double>::max(), 4).size(), 315);
}

TEST(Text, MillionthsRoundAsTheExactValueLies) {
  // The first two are ties; the next two lie just below and just above what looks like one.
  const std::pair<double, double> cases[] = {{0.0078125, 0.007812},
                                             {0.0234375, 0.023438},
                                             {0.0000005, 0.0},
                                             {0.0000025, 0.000003},
                                             {0.1234564, 0.123456},
                                             {-0.0078125, -0.007812},
                                             {2147483648.0078125, 2147483648.007812},
                                             {4503599627370495.5, 4503599627370495.5},
                                             {unknown, unknown}};
  for (const auto& [value, rounded] : cases) {
    EXPECT_EQ(decision_bounds::rounded(value, 6), rounded) << shortest_text(value);
  }
}

TEST(Text, ALocaleWithADecimalCommaChangesNothing) {
  struct Comma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Comma));
  EXPECT_EQ(shortest_text(0.5) + fixed_text(0.5, 2), "0.50.50");
  EXPECT_EQ(rounded(1.1234564, 6), 1.123456);
  std::locale::global(before);
}

}  // namespace decision_bounds
