#pragma once

/// The bounds in plain C++: numbers of the language, exceptions, and a share that a scope gives
/// back.
///
///     native::RunBudget budget{.max_calls = 40, .max_tokens = 90'000};
///     native::DailySpend spend(1.00, utc_date, paid_since);
///     native::HeldShare tokens = budget.hold(1'500.0);  // may wait, or throw a DecisionError
///     native::HeldShare usd = spend.admit([] { return 0.10; });
///     const native::PaidReply reply = call_endpoint();
///     tokens.settle(reply);  // without it, the scope gives the share back
///     usd.settle(reply);
///
/// Any thread may use any bound at any time. A bound is neither copied nor moved, and must outlive
/// the shares that it made. In the child of a fork, a bound that had calls waiting cannot be
/// destroyed: its destructor waits for them. Such a child ends by `_exit`.

#include "decision_bounds/native_daily_spend.hpp"
#include "decision_bounds/native_errors.hpp"
#include "decision_bounds/native_log.hpp"
#include "decision_bounds/native_reply.hpp"
#include "decision_bounds/native_request_rates.hpp"
#include "decision_bounds/native_run_budget.hpp"
#include "decision_bounds/native_share.hpp"
#include "decision_bounds/native_summary.hpp"
