// Counts at the ends of their range, and where a double no longer holds every integer.

#include <cstdint>
#include <limits>
#include <utility>

#include "decision_bounds/native_count.hpp"
#include "scripted_host.hpp"

namespace decision_bounds::native {

constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t two_to_53 = std::int64_t{1} << 53;

TEST(Count, SumsAndDifferencesEndAtTheEndsOfTheRange) {
  for (const std::int64_t near : {largest, largest - 1}) {
    EXPECT_EQ(Count(near) + 1, largest);
    EXPECT_EQ(Count(near) - -1, largest);
    EXPECT_EQ(Count(near) + largest, largest);
    EXPECT_EQ(Count(near) - smallest, largest);
  }
  for (const std::int64_t near : {smallest, smallest + 1}) {
    EXPECT_EQ(Count(near) - 1, smallest);
    EXPECT_EQ(Count(near) + -1, smallest);
    EXPECT_EQ(Count(near) - largest, smallest);
    EXPECT_EQ(Count(near) + smallest, smallest);
  }
  EXPECT_EQ(Count(smallest) + largest, -1);
  EXPECT_EQ(Count(-3) - -5, 2);
  EXPECT_EQ(Count(std::numeric_limits<std::uint64_t>::max()), largest);
}

TEST(Count, TheLeastDoubleFromACountIsNeverBelowIt) {
  const std::pair<std::int64_t, double> cases[] = {{0, 0.0},
                                                   {two_to_53, 0x1p53},
                                                   {two_to_53 + 1, 0x1p53 + 2.0},
                                                   {-two_to_53 - 1, -0x1p53},
                                                   {-two_to_53 - 3, -0x1p53 - 2.0},
                                                   {(std::int64_t{1} << 62) + 1, 0x1p62 + 1024.0},
                                                   {largest, 0x1p63},
                                                   {smallest, -0x1p63}};
  for (const auto& [count, least] : cases) {
    EXPECT_EQ(least_double_from(count), least) << count;
  }
}

TEST(Count, APassComparesItsTokensUnrounded) {
  struct Case {
    std::int64_t used, limit;
    double held;
    bool admits;
  };
  const Case cases[] = {
      {two_to_53, two_to_53 + 1, 0.0, true},
      {two_to_53, two_to_53 + 1, 0.5, true},
      {two_to_53, two_to_53 + 1, 1.0, false},
      {two_to_53 + 3, two_to_53 + 4, 0.0, true},
      {0, two_to_53 + 1, 0x1p53, true},
      {0, two_to_53 + 1, 0x1p53 + 2.0, false},
      {3, 4, 1.0 - 0x1p-53, true},  // Their sum as a double is 4.
      {largest - 1, largest, 0.0, true},
      {smallest, largest, 0x1p62, true},
  };
  for (const auto& [used, limit, held, admits] : cases) {
    HeldRecord tally;
    tally.take(held);
    EXPECT_EQ(tally.admits(1.0, Count(used), Count(limit)), admits)
        << used << " " << limit << " " << held;
  }
}

TEST(Count, WhatAPassCountsStopsAtTheLargest) {
  RunBudget budget{.max_calls = largest, .max_tokens = largest, .cache_hits = largest};
  budget.charge({.cached = true});
  for (int call = 0; call < 3; ++call) {
    budget.charge({.input_tokens = largest / 2 + 1});
  }
  EXPECT_EQ(snapshot(budget),
            (PassSnapshot{.calls = 3, .cache_hits = largest, .input_tokens = largest}));
  EXPECT_THROW(budget.reserve(), DecisionBudgetExceeded);

  RunBudget full{.max_calls = largest, .max_tokens = 1, .calls = largest - 1};
  full.reserve();
  EXPECT_TRUE(full.exhausted());
  EXPECT_EQ(full.calls + full.in_flight + full.in_flight, largest);
}

}  // namespace decision_bounds::native
