#include "decision_bounds/held.hpp"
#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostHeld = Held<Python>;

constexpr std::array fields = {"holders", "amount", "unbounded"};

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
    {"admits", body<[](const Python&, const Arguments& arguments) {
       return arguments.self<HostHeld>().admits(arguments.get(1), arguments.get(2),
                                                arguments.get(3));
     }>},
    {"take", body<[](const Python&, const Arguments& arguments) {
       arguments.self<HostHeld>().take(arguments.get(1));
     }>},
    {"give_back", body<[](const Python&, const Arguments& arguments) {
       arguments.self<HostHeld>().give_back(arguments.get(1));
     }>},
};

}  // namespace

void bind_held(State* state) {
  bind_class(state, declaration,
             make_type<HostHeld>(state->module, "decision_bounds._Held", fields), fields,
             operations);
}

}  // namespace decision_bounds::python
