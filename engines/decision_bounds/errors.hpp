#pragma once

/// How a bound refuses a call: the kinds of error that it raises, and every message text.

namespace decision_bounds {

/// The errors that a bound raises of its own. Each host makes them its own error types.
enum class Refusal {
  budget_exceeded,  ///< What was paid (or the call slots taken) fills the bound.
  timeout,          ///< The call's deadline came while the calls in flight held the rest.
  stopped,          ///< The pass that the call belongs to has been asked to stop.
};

/// The message texts. "%s" stands for a date, "%.4f" and "%.2f" for USD in fixed-point notation.
namespace messages {

inline constexpr const char* stopped = "the pass was asked to stop";
inline constexpr const char* timeout =
    "the decision call ran out of its deadline while the calls in flight held the rest of the "
    "daily cost cap";
/// Followed by the text of the budget's summary.
inline constexpr const char* budget_exhausted = "decision budget exhausted: ";
/// With today's settled spend and the cap.
inline constexpr const char* cap_reached =
    "the daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC)";
/// Logged, with today's settled spend and the cap.
inline constexpr const char* cap_warning =
    "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
    "tomorrow, cached answers are still used";
/// Logged, with the day, and the ledger's error attached.
inline constexpr const char* ledger_warning =
    "Could not read what the decision calls of %s cost; the daily cap counts from 0";

}  // namespace messages

}  // namespace decision_bounds
