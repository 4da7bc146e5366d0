/// The class `_Held`.

#include "decision_bounds/held.hpp"

#include "python_host/class_type.hpp"

namespace decision_bounds::python {

using HostHeld = Held<Python>;

template <>
struct ClassOf<HostHeld> {
  static constexpr const char* type_name = "decision_bounds._Held";
  static constexpr std::tuple fields = {
      Field{"holders", &HostHeld::holders},
      Field{"amount", &HostHeld::amount},
      Field{"unbounded", &HostHeld::unbounded},
  };
};

template struct Instance<HostHeld>;

constexpr Definition held_operations[] = {
    {"__init__", set_fields<HostHeld>},
    {"admits", method<&HostHeld::admits>},
    {"take", method<&HostHeld::take>},
    {"give_back", method<&HostHeld::give_back>},
};

const ClassDefinition held_class = define_class<HostHeld>(held_operations);

}  // namespace decision_bounds::python
