#include "python_host/fields.hpp"

namespace decision_bounds::python {

Function GiveBackSlot::exchange_for_none() {
  if (get() == nullptr) {
    value_of(*this);  // raises
  }
  return Function(std::exchange(static_cast<Ref&>(*this), none()));
}

bool Features::contains(const Ref& feature) const {
  const Ref features = value_of(*this);
  const int found = host_call([&] { return PySequence_Contains(features.get(), feature.get()); });
  check(found);
  return found != 0;
}

void Features::insert(const Ref& feature) const {
  const Ref features = value_of(*this);
  if (PySet_CheckExact(features.get())) {
    check(host_call([&] { return PySet_Add(features.get(), feature.get()); }));
  } else {
    call_method("add", features, feature);
  }
}

}  // namespace decision_bounds::python
