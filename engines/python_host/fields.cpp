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
  if (ending_ != nullptr) {
    const Ref self = tuple_of(Ref::to(state_->module), object_, Ref(amount_));
    Ref function = checked(PyCFunction_New, &ending_->function, self);
    // Making it may have run code that settled the share.
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

bool HeldRecord::admits_by_method(const Number& share, const Number& used,
                                  const Number& limit) const {
  return truth(call_method(interned("admits"), *this, Ref(share), Ref(used), Ref(limit)));
}

void HeldRecord::take_by_method(const Number& share) const {
  const Ref record = value_of(*this);
  const auto take = [&] { call_method(interned("take"), record, Ref(share)); };
  if (auto* inherited = stored_bound<Held<Python>>(record.get())) {
    const Held<Python> before = *inherited;
    on_failure(take, [&] { *inherited = before; });
  } else {
    take();
  }
}

void HeldRecord::give_back_by_method(const Number& share) const {
  call_method(interned("give_back"), *this, Ref(share));
}

Number ChargesRecord::bound_by_method(const Number& size) const {
  return call_method(interned("bound"), *this, Ref(size));
}

void ChargesRecord::learn_by_method(const Number& size, const Number& charge) const {
  call_method(interned("learn"), *this, Ref(size), Ref(charge));
}

}  // namespace decision_bounds::python
