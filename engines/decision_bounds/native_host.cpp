#include "decision_bounds/native_host.hpp"

#include <string_view>

#include "decision_bounds/native_errors.hpp"
#include "decision_bounds/text.hpp"

namespace decision_bounds {

template struct Held<native::Native>;
template struct Charges<native::Native>;

namespace native {

namespace {

/// `text` with the one `mark` in it replaced.
std::string fill_in(std::string text, std::string_view mark, const std::string& value) {
  return text.replace(text.find(mark), mark.size(), value);
}

std::string fill_amounts(const char* text, double cost, double cap) {
  return fill_in(fill_in(text, "%.4f", fixed_text(cost, 4)), "%.2f", fixed_text(cap, 2));
}

}  // namespace

void Native::wait(Condition& changed, const StopFunction& stopping, const Deadline& deadline,
                  const Clock& clock) const {
  decision_bounds::wait(changed, stopping, deadline, clock, *this);
}

StopFunction Native::stop_function(const RunBudget<Native>& budget) {
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

Holdings HeldRecord::holdings() const {
  return {static_cast<std::int64_t>(holders), amount, static_cast<std::int64_t>(unbounded)};
}

}  // namespace native

}  // namespace decision_bounds
