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

Ref return_false(const Python& /*host*/, const Arguments& /*arguments*/) { return Ref(false); }

}  // namespace

bool is_never(PyObject* object) { return is_operation(object, return_false); }

void bind_stock_functions(State* state) {
  bind_function(state, never, return_false);
  bind_function(state, nothing, [](const Python&, const Arguments&) { return Ref::none(); });
}

}  // namespace decision_bounds::python
