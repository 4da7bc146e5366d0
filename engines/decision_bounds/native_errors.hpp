#pragma once

/// The errors with which the bounds end a call in plain C++. The text of each is its message.

#include <stdexcept>

namespace decision_bounds::native {

/// A decision call failed.
struct DecisionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// Another call would exceed a `RunBudget` or the daily cost cap.
struct DecisionBudgetExceeded : DecisionError {
  using DecisionError::DecisionError;
};
/// The endpoint refuses requests; for the client's own use.
struct DecisionUnavailable : DecisionError {
  using DecisionError::DecisionError;
};
/// A call ran out of its deadline while it waited.
struct DecisionTimeout : DecisionError {
  using DecisionError::DecisionError;
};
/// The pass that the call belongs to has been asked to stop.
struct DecisionStopped : DecisionError {
  using DecisionError::DecisionError;
};

}  // namespace decision_bounds::native
