/// `never` and `_nothing`, the defaults of a stop function and of a give-back function.

#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

constexpr Declaration never = {"never", R"(
def never() -> bool:
    """A stop that never comes."""
)"};

constexpr Declaration nothing = {"_nothing", R"(
def _nothing(_reply: PaidReply | None) -> None:
    """Give back a share of nothing."""
)"};

}  // namespace

void bind_stock_functions(State* state) {
  bind_function(state, never, [](const Python&, const Arguments&) { return Ref(false); });
  bind_function(state, nothing, [](const Python&, const Arguments&) { return Ref::none(); });
}

}  // namespace decision_bounds::python
