/// The class `RequestRates`.

#include "decision_bounds/request_rates.hpp"

#include "python_host/class_type.hpp"

namespace decision_bounds::python {

using HostRates = RequestRates<Python>;

template <>
struct ClassOf<HostRates> {
  static constexpr const char* type_name = "decision_bounds.RequestRates";
  static constexpr std::tuple fields = {
      Field{"_lock", &HostRates::lock_},
      Field{"_cost", &HostRates::cost_},
      Field{"_tokens", &HostRates::tokens_},
      Field{"_features", &HostRates::features_},
  };
};

template struct Instance<HostRates>;

static Ref init(const Python& host, const Arguments& arguments) {
  const State& state = *host.state;
  const Ref lock = call_method(interned("Lock"), state.threading);
  const Ref cost = call(state.global("_Charges"));
  const Ref tokens = call(state.global("_Charges"));
  const Ref features = checked(PySet_New, nullptr);
  PyObject* values[] = {arguments[0], lock.get(), cost.get(), tokens.get(), features.get()};
  return set_fields<HostRates>(host, Arguments(values));
}

constexpr Definition request_rates_operations[] = {
    {"__init__", init},
    {"cost", method<&HostRates::cost>},
    {"tokens", method<&HostRates::tokens>},
    {"learn", method<&HostRates::learn>},
};

const ClassDefinition request_rates_class = define_class<HostRates>(request_rates_operations);

}  // namespace decision_bounds::python
