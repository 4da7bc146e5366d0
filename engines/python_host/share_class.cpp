/// The class `Share`: its declaration, its storage and its operations.

#include <cstddef>

#include "decision_bounds/share.hpp"
#include "python_host/declaration.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostShare = Share<GiveBackSlot>;

constexpr Field fields[] = {
    BOUND_FIELD("_give_back", HostShare, give_back_),
};

constinit auto attributes = attributes_of<HostShare>(fields);

constexpr Declaration declaration = {"Share", R"(
class Share:
    """What one admitted call holds of one bound, until the call ends.

    Used as the object of a ``with`` block around the call. It is given back exactly once: settled
    with the paid reply, or, on leaving the block, without one. A share that is dropped without
    either gives nothing back.
    """

    def __init__(self, give_back: Callable[[PaidReply | None], None] = _nothing) -> None:
        """Hold ``give_back``, which is called once, with the paid reply or None."""

    def settle(self, reply: PaidReply | None) -> None:
        """Give the share back, with the paid reply that ended the call or None.

        Only the first call does anything, also when several threads settle at once. Whatever the
        give-back function raises is raised here; the share is given back all the same.
        """

    def __enter__(self) -> Share:
        """Return the share itself."""

    def __exit__(self, *_exc: object) -> None:
        """Give the share back without a reply, unless it was settled before."""
)"};

constexpr Definition operations[] = {
    {"__init__",
     [](const Python&, const Arguments& arguments) {
       arguments.self<HostShare>().give_back_ = arguments.get<GiveBackSlot>(1);
       return Ref::none();
     }},
    {"settle",
     [](const Python&, const Arguments& arguments) {
       arguments.self<HostShare>().settle(arguments.get<Optional>(1));
       return Ref::none();
     }},
    {"__enter__", [](const Python&, const Arguments& arguments) { return arguments.get(0); }},
    {"__exit__",
     [](const Python&, const Arguments& arguments) {
       arguments.self<HostShare>().settle(Optional(Ref::none()));
       return Ref::none();
     }},
};

}  // namespace

template <>
std::span<const Field> fields_of<HostShare>() {
  return fields;
}

void bind_share(State* state) {
  const Ref type = make_type<HostShare>(state->module, "decision_bounds.Share", attributes.data());
  bind_class(state, declaration, type, fields, operations);
  state->remember_share(type);
}

}  // namespace decision_bounds::python
