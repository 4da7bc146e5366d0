#include "decision_bounds/native_summary.hpp"

#include <array>
#include <cstddef>

#include "decision_bounds/run_budget.hpp"
#include "decision_bounds/text.hpp"

namespace decision_bounds::native {

std::string Summary::text() const {
  const std::array<std::string, summary_keys.size()> values = {
      std::to_string(calls),   std::to_string(cache_hits), std::to_string(input_tokens),
      shortest_text(cost_usd), std::to_string(max_calls),  std::to_string(max_tokens)};
  std::string text;
  for (std::size_t entry = 0; entry < values.size(); ++entry) {
    text += text.empty() ? "{'" : ", '";
    text += summary_keys[entry];
    text += "': " + values[entry];
  }
  return text + "}";
}

}  // namespace decision_bounds::native
