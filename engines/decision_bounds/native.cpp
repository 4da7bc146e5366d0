#include "decision_bounds/native.hpp"

#include <array>
#include <string_view>

#include "decision_bounds/native_errors.hpp"
#include "decision_bounds/text.hpp"

namespace decision_bounds {

template struct Held<native::Native>;
template struct Charges<native::Native>;
template struct RequestRates<native::Native>;
template struct RunBudget<native::Native>;
template struct DailySpend<native::Native>;

namespace native {

namespace {

/// `text` with the one `mark` in it replaced.
std::string fill_in(std::string text, std::string_view mark, const std::string& value) {
  return text.replace(text.find(mark), mark.size(), value);
}

std::string fill_amounts(const char* text, double cost, double cap) {
  return fill_in(fill_in(text, "%.4f", fixed_text(cost, 4)), "%.2f", fixed_text(cap, 2));
}

std::int64_t number(Count count) { return static_cast<std::int64_t>(count); }

Holdings holdings(const HeldRecord& held) {
  return {number(held.holders), held.amount, number(held.unbounded)};
}

}  // namespace

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

PassSnapshot snapshot(RunBudget& budget) {
  const std::lock_guard held(budget.changed_);
  return {number(budget.calls), number(budget.cache_hits), number(budget.input_tokens),
          budget.cost,          number(budget.in_flight),  holdings(budget.held_tokens_)};
}

DaySnapshot snapshot(DailySpend& spend) {
  const std::lock_guard held(spend.account_.changed_);
  return {spend.account_.day_, spend.account_.cost_, holdings(spend.account_.held_)};
}

void Native::wait(Condition& changed, const StopFunction& stopping, const Deadline& deadline,
                  const Clock& clock) const {
  decision_bounds::wait(changed, stopping, deadline, clock, *this);
}

StopFunction Native::stop_function(const RunBudget& budget) {
  return [&budget] { return budget.stopping(); };
}

void Native::refuse(Refusal refusal, const std::string& text) {
  switch (refusal) {
    case Refusal::timeout:
      throw DecisionTimeout(text);
    case Refusal::stopped:
      throw DecisionStopped(text);
    default:
      throw DecisionBudgetExceeded(text);
  }
}

void Native::refuse(Refusal refusal, const char* text, const Summary& summary) {
  refuse(refusal, text + summary.text());
}

void Native::refuse(Refusal refusal, const char* text, double cost, double cap) {
  refuse(refusal, fill_amounts(text, cost, cap));
}

void Native::warn(const char* text, double cost, double cap) const {
  if (log != nullptr) {
    log->warning(fill_amounts(text, cost, cap));
  }
}

void Native::warn_of_error(const char* text, const std::string& day,
                           const std::exception& error) const {
  if (log != nullptr) {
    log->warning(fill_in(text, "%s", day) + ": " + error.what());
  }
}

}  // namespace native

}  // namespace decision_bounds
