#pragma once

/// What the bounds ask of the world they run in.
///
/// Each bound is written once, over a host: plain C++ (native.hpp) or an interpreter, whose
/// numbers, locks and callbacks are objects of its own. A host is passed to the operations that
/// need it and is never global. Count and Amount have the operators + - * / < > >= and the like;
/// where a bound turns a count into an amount, it says so with `H::amount`. A tally compares counts
/// as well as amounts.

#include <concepts>

#include "decision_bounds/errors.hpp"

namespace decision_bounds {

template <typename H>
struct RunBudget;  // a stop function, and a share, are made of a bound

/// The numbers: integers (`Count`), floating-point numbers (`Amount`) and truth values (`Flag`).
template <typename H>
concept HostNumbers = requires(typename H::Count count, typename H::Amount amount,
                               typename H::Flag flag) {
  { typename H::Count(0) } -> std::same_as<typename H::Count>;
  { typename H::Amount(0.0) } -> std::same_as<typename H::Amount>;
  { typename H::Flag(true) } -> std::same_as<typename H::Flag>;
  { count + 1 } -> std::convertible_to<typename H::Count>;
  { count - 1 } -> std::convertible_to<typename H::Count>;
  { count >= count } -> std::same_as<bool>;
  { count >= 1 } -> std::same_as<bool>;
  { amount + amount } -> std::convertible_to<typename H::Amount>;
  { amount - amount } -> std::convertible_to<typename H::Amount>;
  // clang-format off: it takes the product for a declaration
  { amount* amount } -> std::convertible_to<typename H::Amount>;
  // clang-format on
  { amount / amount } -> std::convertible_to<typename H::Amount>;
  { amount < amount } -> std::same_as<bool>;
  { amount > amount } -> std::same_as<bool>;
  { amount <= 0 } -> std::same_as<bool>;
  { H::amount(count) } -> std::convertible_to<typename H::Amount>;
  { H::truth(count) } -> std::same_as<bool>;
  { H::truth(flag) } -> std::same_as<bool>;
  { H::is_infinite(amount) } -> std::same_as<bool>;
};

/// The records and the set that a bound owns: the tally of what is held, the dearest charges, and
/// the features that have had a reply.
template <typename H>
concept HostRecords = requires(typename H::HeldRecord& held, typename H::ChargesRecord& charges,
                               typename H::Features& features, typename H::Amount amount,
                               typename H::Count size, typename H::Text feature) {
  { held.admits(amount, amount, amount) } -> std::same_as<bool>;
  { held.admits(amount, size, size) } -> std::same_as<bool>;
  held.take_or_nothing(amount);
  held.give_back(amount);
  { charges.bound(size) } -> std::convertible_to<typename H::Amount>;
  charges.learn(size, amount);
  { features.contains(feature) } -> std::same_as<bool>;
  { features.empty() } -> std::same_as<bool>;
  features.insert(feature);
  { feature != feature } -> std::same_as<bool>;
};

/// The functions that callers hand in, and the replies. A `MaybeReply`, a `Ledger`, a `Deadline`
/// and a `Clock` may be absent, and convert to false where they are.
template <typename H>
concept HostCallbacks = requires(const H& host, const typename H::StopFunction& stop,
                                 const typename H::DateFunction& today,
                                 const typename H::Ledger& ledger, const typename H::Text& day,
                                 const typename H::BoundFunction& bound,
                                 const typename H::Deadline& deadline,
                                 const typename H::Clock& clock, typename H::MaybeReply reply,
                                 typename H::GiveBackSlot& slot) {
  { stop() } -> std::same_as<bool>;
  { today() } -> std::convertible_to<typename H::Text>;
  { H::to_amount(ledger(day)) } -> std::convertible_to<typename H::Amount>;
  { bound() } -> std::convertible_to<typename H::Amount>;
  { *deadline - clock() } -> std::convertible_to<typename H::Amount>;
  { host.cached(*reply) } -> std::same_as<bool>;
  { host.input_tokens(*reply) } -> std::convertible_to<typename H::Count>;
  { host.cost(*reply) } -> std::convertible_to<typename H::Amount>;
  slot.exchange_for_none()(reply);  // one step, whatever other threads do
};

/// Locks and waiting. `locked(lock, block)` runs the block with the lock held, gives the lock up
/// however the block ends, and returns what the block returns. A condition's lock is reentrant, and
/// `wait` on a condition (wait.hpp) gives it up wholly while it sleeps.
template <typename H>
concept HostThreads = requires(const H& host, typename H::Condition& changed,
                               typename H::Mutex& mutex, const typename H::StopFunction& stopping,
                               const typename H::Deadline& deadline, const typename H::Clock& clock,
                               RunBudget<H>& budget, void (*block)()) {
  host.locked(changed, block);
  host.locked(mutex, block);
  host.notify_all(changed);
  host.wait(changed, stopping, deadline, clock);
  host.wait(changed, host.stop_function(budget));
  changed.wait(host.poll_s());
};

/// Failures and texts. `on_failure(block, undo)` returns what the block returns; where the block
/// fails, it runs `undo` and the failure goes on. `attempt(block, failed)` ends an ordinary
/// failure of the block in `failed(error)`.
template <typename H>
concept HostErrors = requires(const H& host, void (*block)(), void (*failed)(...),
                              const RunBudget<H>& budget, typename H::Amount amount,
                              const typename H::Summary& summary) {
  H::on_failure(block, block);
  H::attempt(block, failed);
  { host.summary(budget) } -> std::same_as<typename H::Summary>;
  host.refuse(Refusal::stopped, messages::stopped);
  host.refuse(Refusal::budget_exceeded, messages::budget_exhausted, summary);
  host.refuse(Refusal::budget_exceeded, messages::cap_reached, amount, amount);
  host.warn(messages::cap_warning, amount, amount);
};

/// Shares. `make_share(bound, amount)` returns one whose give-back function calls `give_back` of
/// the bound with the amount and the reply.
template <typename H>
concept HostShares = requires(const H& host, RunBudget<H>& budget, typename H::Amount amount) {
  { host.make_share(budget, amount) } -> std::same_as<typename H::HeldShare>;
};

template <typename H>
concept Host = HostNumbers<H> && HostRecords<H> && HostCallbacks<H> && HostThreads<H> &&
    HostErrors<H> && HostShares<H>;

}  // namespace decision_bounds
