/// The class `Share`.

#include "decision_bounds/share.hpp"

#include "python_host/class_type.hpp"

namespace decision_bounds::python {

using HostShare = Share<GiveBackSlot>;

template <>
struct ClassOf<HostShare> {
  static constexpr const char* type_name = "decision_bounds.Share";
  static constexpr std::tuple fields = {Field{"_give_back", &HostShare::give_back_}};
};

template struct Instance<HostShare>;

constexpr Definition share_operations[] = {
    {"__init__", set_fields<HostShare>},
    {"settle", method<&HostShare::settle<const Optional&>>},
    {"__enter__",
     [](const Python& /*host*/, const Arguments& arguments) { return arguments.get(0); }},
    {"__exit__",
     [](const Python& /*host*/, const Arguments& arguments) {
       auto& share = arguments.bound<HostShare>();
       const CriticalSection section(arguments[0]);
       share.settle(Optional(Ref::none()));
       return Ref::none();
     }},
};

const ClassDefinition share_class = define_class<HostShare>(share_operations);

}  // namespace decision_bounds::python
