/// The class `_Charges`: its declaration, its storage and its operations.

#include <cstddef>

#include "decision_bounds/charges.hpp"
#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostCharges = Charges<Python>;

constexpr Field fields[] = {
    BOUND_FIELD("per_byte", HostCharges, per_byte),
    BOUND_FIELD("per_call", HostCharges, per_call),
};

constinit auto attributes = attributes_of<HostCharges>(fields);

constexpr Declaration declaration = {"_Charges", R"(
class _Charges:
    """The most that one paid reply came to (USD or input tokens): per byte of its request, and whole.

    Neither maximum ever falls. There is no lock: the owner's guards the record.
    """

    per_byte: float = 0.0
    per_call: float = 0.0

    def bound(self, size: int) -> float:
        """The most that a request of ``size`` bytes may come to."""

    def learn(self, size: int, charge: float) -> None:
        """Take in what the reply to a request of ``size`` bytes came to."""
)"};

constexpr Definition operations[] = {
    {"bound", method<&HostCharges::bound>},
    {"learn", method<&HostCharges::learn>},
};

}  // namespace

template <>
std::span<const Field> fields_of<HostCharges>() {
  return fields;
}

void bind_charges(State* state) {
  bind_class(state, declaration,
             make_type<HostCharges>(state->module, "decision_bounds._Charges", attributes.data()),
             fields, operations);
}

}  // namespace decision_bounds::python
