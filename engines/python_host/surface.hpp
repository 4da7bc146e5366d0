#pragma once

/// What the module binds, in the order of loading. Each binds one class or a few functions.

#include "python_host/state.hpp"

namespace decision_bounds::python {

void bind_errors(State* state);
void bind_paid_reply(State* state);
void bind_stock_functions(State* state);
void bind_share(State* state);
void bind_held(State* state);
void bind_wait(State* state);
void bind_charges(State* state);
void bind_request_rates(State* state);
void bind_run_budget(State* state);
void bind_daily_spend(State* state);

}  // namespace decision_bounds::python
