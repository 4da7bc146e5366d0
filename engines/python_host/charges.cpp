/// The class `_Charges`.

#include "decision_bounds/charges.hpp"

#include "python_host/class_type.hpp"

namespace decision_bounds::python {

using HostCharges = Charges<Python>;

template <>
struct ClassOf<HostCharges> {
  static constexpr const char* type_name = "decision_bounds._Charges";
  static constexpr std::tuple fields = {
      Field{"per_byte", &HostCharges::per_byte},
      Field{"per_call", &HostCharges::per_call},
  };
};

template struct Instance<HostCharges>;

constexpr Definition charges_operations[] = {
    {"__init__", set_fields<HostCharges>},
    {"bound", method<&HostCharges::bound>},
    {"learn", method<&HostCharges::learn>},
};

const ClassDefinition charges_class = define_class<HostCharges>(charges_operations);

}  // namespace decision_bounds::python
