/// The records that a bound owns, used directly where they are of exactly their type.

#include "python_host/fields.hpp"
#include "python_host/instance.hpp"
#include "python_host/python.hpp"

namespace decision_bounds::python {

bool HeldRecord::admits(const Number& share, const Number& used, const Number& limit) const {
  const Ref record = value_of(*this);
  if (auto* held = exact_bound<Held<Python>>(record)) {
    return held->admits(share, used, limit);
  }
  return truth(call_method("admits", record, Ref(share), Ref(used), Ref(limit)));
}

void HeldRecord::take_or_nothing(const Number& share) const {
  const Ref record = value_of(*this);
  if (auto* held = exact_bound<Held<Python>>(record)) {
    held->take_or_nothing(share);
  } else if (auto* inherited = stored_bound<Held<Python>>(record.get())) {
    const Held<Python> before = *inherited;
    on_failure([&] { call_method("take", record, Ref(share)); }, [&] { *inherited = before; });
  } else {
    call_method("take", record, Ref(share));
  }
}

void HeldRecord::give_back(const Number& share) const {
  const Ref record = value_of(*this);
  if (auto* held = exact_bound<Held<Python>>(record)) {
    held->give_back(share);
  } else {
    call_method("give_back", record, Ref(share));
  }
}

Number ChargesRecord::bound(const Number& size) const {
  const Ref record = value_of(*this);
  if (auto* charges = exact_bound<Charges<Python>>(record)) {
    return charges->bound(size);
  }
  return call_method("bound", record, Ref(size));
}

void ChargesRecord::learn(const Number& size, const Number& charge) const {
  const Ref record = value_of(*this);
  if (auto* charges = exact_bound<Charges<Python>>(record)) {
    charges->learn(size, charge);
  } else {
    call_method("learn", record, Ref(size), Ref(charge));
  }
}

}  // namespace decision_bounds::python
