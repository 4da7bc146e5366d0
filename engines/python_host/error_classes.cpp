/// The errors that end a decision call.

#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

constexpr Declaration errors[] = {
    {"DecisionError", R"(
class DecisionError(RuntimeError):
    """Raised when a decision call fails (after retries)."""
)"},
    {"DecisionBudgetExceeded", R"(
class DecisionBudgetExceeded(DecisionError):
    """Raised when a ``RunBudget`` or the daily cost cap would be exceeded by another call."""
)"},
    {"DecisionUnavailable", R"(
class DecisionUnavailable(DecisionError):
    """Raised while the endpoint refuses requests: it is not asked until the window ends."""
)"},
    {"DecisionTimeout", R"(
class DecisionTimeout(DecisionError):
    """Raised when a call without a budget (a tool's) runs out of its deadline."""
)"},
    {"DecisionStopped", R"(
class DecisionStopped(DecisionError):
    """Raised when the pass that a call belongs to has been asked to stop."""
)"},
};

}  // namespace

void bind_errors(State* state) {
  for (const Declaration& error : errors) {
    bind_declared(state, error);
  }
}

}  // namespace decision_bounds::python
