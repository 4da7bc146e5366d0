/// `PaidReply`, the interface of the replies.

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

}  // namespace

void bind_paid_reply(State* state) { bind_declared(state, paid_reply); }

}  // namespace decision_bounds::python
