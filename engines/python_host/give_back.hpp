#pragma once

/// The give-back function of a share: an object of the host that holds the bound and the amount,
/// so that the cycle collector sees the way from a share to its bound and the bound's callbacks.

#include "python_host/fields.hpp"
#include "python_host/instance.hpp"
#include "python_host/ref.hpp"

namespace decision_bounds::python {

struct State;

/// Ends a call of the bound in `owner` that held `amount`, with the paid reply or none.
using EndCall = void (*)(State* state, PyObject* owner, const Ref& amount, const Optional& reply);

/// A new give-back function. It keeps the owner, and the module that the state belongs to.
Ref make_give_back(State* state, PyObject* owner, const Ref& amount, EndCall end_call);

/// Makes the type of the give-back functions; it is not bound to any name.
Ref make_give_back_type(PyObject* module);

}  // namespace decision_bounds::python
