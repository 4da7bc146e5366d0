#include "python_host/python.hpp"

#include <array>
#include <cstddef>
#include <utility>

#include "decision_bounds/rounding.hpp"

namespace decision_bounds::python {

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

const char* name_of(Refusal refusal) {
  switch (refusal) {
    case Refusal::timeout:
      return "DecisionTimeout";
    case Refusal::stopped:
      return "DecisionStopped";
    default:
      return "DecisionBudgetExceeded";
  }
}

Ref text_of(const char* text) { return checked(PyUnicode_FromString, text); }

}  // namespace

void Python::wait(const Ref& changed, const Ref& stopping) const {
  const Ref wait = state->global(state->names.wait);
  const Ref condition = value_of(changed);
  const Suspension suspension(section);
  call(wait, condition, stopping);
}

void Python::wait(const Ref& changed, const Ref& stopping, const Ref& deadline,
                  const Ref& clock) const {
  const Ref wait = state->global(state->names.wait);
  const Ref condition = value_of(changed);
  const Suspension suspension(section);
  call_by_name(wait, state->deadline_and_clock, condition, stopping, deadline, clock);
}

Ref Python::stop_function(const RunBudget<Python>& budget) const {
  return attribute(Ref::to(object_of(budget)), state->names.stopping);
}

Ref Python::share_of(GiveBackSlot give_back) const {
  const Ref type = state->global(state->names.share);
  PyTypeObject* own_type = as_type(state->share_type);
  if (type.get() != state->share_type.get() || state->share_version == 0 ||
      class_version_of(own_type) != state->share_version) {
    return call(type, Ref::to(give_back.kept_function()));
  }
  Ref share = checked(own_type->tp_alloc, own_type, Py_ssize_t{0});
  Instance<Share<GiveBackSlot>>::of(share.get())->bound.give_back_ = std::move(give_back);
  return share;
}

Ref Python::rounded(const Number& cost) const {
  if (cost.is_floating()) {
    if (const auto usd = rounded_to_micros(cost.value())) {
      return Number(*usd);
    }
  }
  return call(state->round, Ref(cost), checked(PyLong_FromLong, cost_decimals));
}

Ref Python::summary(const RunBudget<Python>& budget) const {
  const std::array<Ref, summary_keys.size()> values = {budget.calls,        budget.cache_hits,
                                                       budget.input_tokens, rounded(budget.cost),
                                                       budget.max_calls,    budget.max_tokens};
  Ref summary = checked(PyDict_Copy, state->empty_summary);
  for (std::size_t entry = 0; entry < values.size(); ++entry) {
    checked(PyDict_SetItem, summary, state->summary_keys[entry], values[entry]);
  }
  return summary;
}

void Python::refuse(Refusal refusal, const char* text) const {
  raise(state->global(name_of(refusal)), text_of(text));
}

void Python::refuse(Refusal refusal, const char* text, const Ref& summary) const {
  const Ref type = state->global(name_of(refusal));
  raise(type, checked(PyUnicode_Concat, text_of(text), checked(PyObject_Str, summary)));
}

void Python::refuse(Refusal refusal, const char* text, const Ref& cost, const Ref& cap) const {
  const Ref type = state->global(name_of(refusal));
  raise(type, checked(PyUnicode_Format, text_of(text), tuple_of(value_of(cost), value_of(cap))));
}

void Python::warn(const char* text, const Ref& cost, const Ref& cap) const {
  call_method(interned("warning"), state->global("logger"), text_of(text), cost, cap);
}

void Python::warn_of_error(const char* text, const Ref& day, const Ref& error) const {
  const Ref warning = attribute(state->global("logger"), "warning");
  call_by_name(warning, state->exc_info, text_of(text), day, error);
}

}  // namespace decision_bounds::python
