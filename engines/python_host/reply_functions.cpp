#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

constexpr Declaration paid_reply = {"PaidReply", R"(
class PaidReply(Protocol):
    """What a bound reads of a reply (a ``DecisionResult``)."""

    @property
    def cached(self) -> bool:
        """Whether the reply came from the client's cache; no paid call was made for it."""

    @property
    def input_tokens(self) -> int:
        """Input tokens that the paid call used."""

    @property
    def cost(self) -> float:
        """What the paid call cost, USD."""
)"};

constexpr Declaration never = {"never", R"(
def never() -> bool:
    """A stop that never comes."""
)"};

constexpr Declaration nothing = {"_nothing", R"(
def _nothing(_reply: PaidReply | None) -> None:
    """Give back a share of nothing."""
)"};

}  // namespace

void bind_replies(State* state) {
  bind_declared(state, paid_reply);
  bind_function(state, never, [](const Python&, const Arguments&) { return Ref(false); });
  bind_function(state, nothing, [](const Python&, const Arguments&) { return Ref::none(); });
}

}  // namespace decision_bounds::python
