#include "python_host/fields.hpp"

#include "python_host/instance.hpp"
#include "python_host/python.hpp"
#include "python_host/state.hpp"

namespace decision_bounds::python {

GiveBackSlot GiveBackSlot::exchange_for_none() {
  if (object_.get() == nullptr) {
    raise_unset_field();
  }
  return std::exchange(*this, GiveBackSlot(Ref::none()));
}

void GiveBackSlot::operator()(const Optional& reply) const {
  if (ending_ != nullptr) {
    ending_->end_call(state_, object_.get(), amount_, reply);
  } else {
    call(object_, reply);
  }
}

PyObject* GiveBackSlot::kept_function() {
  // Making an object may run code that settles the share.
  if (Ending* const ending = ending_) {
    const Ref self = tuple_of(Ref::to(state_->module), object_, Ref(amount_));
    Ref function = checked(PyCFunction_New, &ending->function, self);
    if (ending_ != nullptr) {
      *this = GiveBackSlot(std::move(function));
    }
  }
  return object_.get();
}

bool Features::contains(const Ref& feature) const {
  return checked(PySequence_Contains, value_of(*this), feature) != 0;
}

void Features::insert(const Ref& feature) const {
  const Ref features = value_of(*this);
  if (PySet_CheckExact(features.get())) {
    checked(PySet_Add, features, feature);
  } else {
    call_method(interned("add"), features, feature);
  }
}

}  // namespace decision_bounds::python
