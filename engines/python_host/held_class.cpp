/// The class `_Held`: its declaration, its storage and its operations.

#include <cstddef>

#include "decision_bounds/held.hpp"
#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostHeld = Held<Python>;

constexpr Field fields[] = {
    BOUND_FIELD("holders", HostHeld, holders),
    BOUND_FIELD("amount", HostHeld, amount),
    BOUND_FIELD("unbounded", HostHeld, unbounded),
};

constinit auto attributes = attributes_of<HostHeld>(fields);

constexpr Declaration declaration = {"_Held", R"(
class _Held:
    """What the admitted calls hold of one bound, in its unit (USD or input tokens).

    An infinite share, of a call whose use is not known, is unbounded and runs alone. There is no
    lock: the bound that owns the record calls each operation with its own lock held.
    """

    holders: int = 0
    amount: float = 0.0
    unbounded: int = 0

    def admits(self, share: float, used: float, limit: float) -> bool:
        """Whether a call that would hold ``share`` may start, with ``used`` of ``limit`` settled."""

    def take(self, share: float) -> None:
        """Add the share of a call just admitted."""

    def give_back(self, share: float) -> None:
        """Remove the share that an ending call took. No field goes below zero."""
)"};

constexpr Definition operations[] = {
    {"admits", method<&HostHeld::admits>},
    {"take", method<&HostHeld::take>},
    {"give_back", method<&HostHeld::give_back>},
};

}  // namespace

template <>
std::span<const Field> fields_of<HostHeld>() {
  return fields;
}

void bind_held(State* state) {
  bind_class(state, declaration,
             make_type<HostHeld>(state->module, "decision_bounds._Held", attributes.data()), fields,
             operations);
}

}  // namespace decision_bounds::python
