#include "python_host/python.hpp"

#include <array>

namespace decision_bounds {

template struct Held<python::Python>;
template struct Charges<python::Python>;
template struct RequestRates<python::Python>;
template struct RunBudget<python::Python>;
template struct DailySpend<python::Python>;

namespace python {

namespace {

/// `raise type(text)`.
[[noreturn]] void raise(const Ref& type, const Ref& text) {
  const Ref error = call(type, text);
  if (PyExceptionInstance_Check(error.get())) {
    PyErr_SetObject(PyExceptionInstance_Class(error.get()), error.get());
  } else {
    PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
  }
  throw Raised{};
}

Name name_of(Refusal refusal) {
  switch (refusal) {
    case Refusal::timeout:
      return Name::timeout;
    case Refusal::stopped:
      return Name::stopped;
    default:
      return Name::budget_exceeded;
  }
}

Ref text_of(const char* text) { return Ref::checked(PyUnicode_FromString(text)); }

}  // namespace

void Python::wait(const Ref& changed, const Ref& stopping) const {
  call(state->global(Name::wait), changed, stopping);
}

void Python::wait(const Ref& changed, const Ref& stopping, const Ref& deadline,
                  const Ref& clock) const {
  const Ref function = state->global(Name::wait);
  const Ref condition = value_of(changed);
  std::array<PyObject*, 5> places = {nullptr, condition.get(), stopping.get(), deadline.get(),
                                     clock.get()};
  call_vector(function.get(), places.data() + 1, 2, state->deadline_and_clock.get());
}

Ref Python::stop_function(const RunBudget<Python>& budget) const {
  return property(Ref::to(object_of(budget)), state->name(Name::stopping));
}

Ref Python::share_of(Ref give_back) const {
  const Ref type = state->global(Name::share);
  if (type.get() != reinterpret_cast<PyObject*>(state->share_type) ||
      state->share_type->tp_version_tag != state->share_version) {
    return call(type, give_back);
  }
  using ShareInstance = Instance<Share<GiveBackSlot>>;
  Ref share =
      Ref::checked(host_call([&] { return state->share_type->tp_alloc(state->share_type, 0); }));
  ShareInstance::of(share.get())->bound.give_back_ = GiveBackSlot(std::move(give_back));
  return share;
}

Ref Python::summary(const RunBudget<Python>& budget) const {
  const std::array values = {value_of(budget.calls),        value_of(budget.cache_hits),
                             value_of(budget.input_tokens), Ref(rounded(budget.cost)),
                             value_of(budget.max_calls),    value_of(budget.max_tokens)};
  Ref mapping = Ref::checked(host_call(PyDict_New));
  for (std::size_t entry = 0; entry < values.size(); ++entry) {
    check(PyDict_SetItem(mapping.get(), state->summary_keys[entry].get(), values[entry].get()));
  }
  return mapping;
}

void Python::refuse(Refusal refusal, const char* text) const {
  raise(state->global(name_of(refusal)), text_of(text));
}

void Python::refuse(Refusal refusal, const char* text, const Ref& summary) const {
  raise(state->global(name_of(refusal)),
        Ref::checked(host_call([&] { return PyUnicode_FromFormat("%s%S", text, summary.get()); })));
}

void Python::refuse(Refusal refusal, const char* text, const Ref& cost, const Ref& cap) const {
  const Ref type = state->global(name_of(refusal));
  const Ref amounts = Ref::checked(
      host_call([&] { return PyTuple_Pack(2, value_of(cost).get(), value_of(cap).get()); }));
  const Ref form = text_of(text);
  raise(type, Ref::checked(host_call([&] { return PyUnicode_Format(form.get(), amounts.get()); })));
}

void Python::warn(const char* text, const Ref& cost, const Ref& cap) const {
  call_method(state->name(Name::warning), state->global(Name::logger), text_of(text), cost, cap);
}

void Python::warn_of_error(const char* text, const Ref& day, const Ref& error) const {
  const Ref warning = property(state->global(Name::logger), state->name(Name::warning));
  const Ref message = text_of(text);
  std::array<PyObject*, 4> places = {nullptr, message.get(), day.get(), error.get()};
  call_vector(warning.get(), places.data() + 1, 2, state->exc_info.get());
}

}  // namespace python

}  // namespace decision_bounds
