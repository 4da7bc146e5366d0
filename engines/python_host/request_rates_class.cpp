/// The class `RequestRates`: its declaration, its storage and its operations.

#include <cstddef>

#include "decision_bounds/request_rates.hpp"
#include "python_host/declaration.hpp"
#include "python_host/imports.hpp"
#include "python_host/surface.hpp"

namespace decision_bounds::python {

namespace {

using HostRates = RequestRates<Python>;

constexpr Field fields[] = {
    BOUND_FIELD("_lock", HostRates, lock_),
    BOUND_FIELD("_cost", HostRates, cost_),
    BOUND_FIELD("_tokens", HostRates, tokens_),
    BOUND_FIELD("_features", HostRates, features_),
};

constinit auto attributes = attributes_of<HostRates>(fields);

constexpr Declaration declaration = {"RequestRates", R"(
class RequestRates:
    """What a request may cost and use before its reply says, learned from the paid replies.

    Shared by all the calls of a client, from any thread. The cost of a request is known once its
    feature (the kind of request) has had a reply, its input tokens once any feature has; until then
    they are infinite, and the call runs alone.
    """

    def __init__(self) -> None:
        """Know nothing yet."""

    def cost(self, size: int, feature: str) -> float:
        """The most that a request of ``size`` bytes may cost, USD; infinite while not known."""

    def tokens(self, size: int) -> float:
        """The most input tokens that a request of ``size`` bytes may use; infinite while not known."""

    def learn(self, size: int, feature: str, reply: PaidReply) -> None:
        """Take in what the paid reply to a request of ``size`` bytes cost and used.

        What reading the reply raises is raised here; the feature is known all the same.
        """
)"};

constexpr Definition operations[] = {
    {"__init__",
     [](const Python& host, const Arguments& arguments) {
       auto& rates = arguments.self<HostRates>();
       rates.lock_ = call_method("Lock", host.state->threading);
       rates.cost_ = ChargesRecord(call(host.state->global(Name::charges)));
       rates.tokens_ = ChargesRecord(call(host.state->global(Name::charges)));
       rates.features_ = Features(Ref::checked(PySet_New(nullptr)));
       return Ref::none();
     }},
    {"cost", method<&HostRates::cost>},
    {"tokens", method<&HostRates::tokens>},
    {"learn", method<&HostRates::learn>},
};

}  // namespace

template <>
std::span<const Field> fields_of<HostRates>() {
  return fields;
}

void bind_request_rates(State* state) {
  bind_class(state, declaration,
             make_type<HostRates>(state->module, "decision_bounds.RequestRates", attributes.data()),
             fields, operations);
}

}  // namespace decision_bounds::python
