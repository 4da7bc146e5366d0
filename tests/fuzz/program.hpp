#pragma once

/// What the programs of both bounds have: the numbers that the input gives, and the calls that were
/// admitted, which are the model of what is held.

#include <cstdint>
#include <iterator>
#include <limits>
#include <list>
#include <tuple>
#include <utility>

#include "decision_bounds/native.hpp"
#include "fuzzer.hpp"

namespace decision_bounds {

using native::HeldShare;
using native::PaidReply;

inline constexpr double unknown = std::numeric_limits<double>::infinity();

/// What callbacks throw. It is no `std::exception`, which a ledger's failure would be.
struct Thrown {};

enum class Answer { done, refused, stopped, late, thrown };

/// How a call ends.
Answer answer_of(const auto& call) {
  try {
    call();
    return Answer::done;
  } catch (const native::DecisionBudgetExceeded&) {
    return Answer::refused;
  } catch (const native::DecisionStopped&) {
    return Answer::stopped;
  } catch (const native::DecisionTimeout&) {
    return Answer::late;
  } catch (const Thrown&) {
    return Answer::thrown;
  }
}

/// The input as a program of operations on one bound. What is admitted and ended is compared with
/// the model; sums of any doubles, in a wild program, are not.
class Program {
 public:
  explicit Program(FuzzedDataProvider& input) : data(input) {}
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  virtual ~Program() = default;

 protected:
  /// Counts the reply of a call that ends, in the model. Returns whether the call still holds its
  /// share, and how `settle` ends.
  virtual std::pair<bool, Answer> count(const PaidReply& reply) = 0;

  int below(int end) { return data.ConsumeIntegralInRange(0, end - 1); }
  bool one_in(int many) { return below(many) == 0; }
  /// A multiple of 1/8, whose sums are exact; in a wild program, any number.
  double usd() { return is_wild ? data.ConsumeFloatingPoint<double>() : below(80) / 8.0; }
  double share() { return one_in(6) ? unknown : usd(); }
  std::int64_t tokens() { return is_wild ? data.ConsumeIntegral<std::int64_t>() : below(40); }
  PaidReply reply() { return {.cached = one_in(6), .input_tokens = tokens(), .cost = usd()}; }

  bool has_room(double share, double used, double limit) const {
    const native::Holdings held = holdings();
    return held.unbounded == 0 && (share != unknown || held.holders == 0) &&
           used + held.amount < limit;
  }
  void require_held(const native::Holdings& held) const {
    const native::Holdings expected = holdings();
    require(held.holders == expected.holders);
    require(held == expected || (is_wild && held.holders > 0));
  }
  native::Holdings holdings() const {
    native::Holdings held;
    for (const Call& call : calls) {
      held.holders += call.is_held ? 1 : 0;
      held.unbounded += call.is_held && call.amount == unknown ? 1 : 0;
      held.amount += call.is_held && call.amount != unknown ? call.amount : 0.0;
    }
    return held;
  }

  /// Ends a call in one of the ways that there are; it may have ended before.
  void end_one() {
    if (calls.empty()) {
      return;
    }
    Call& call = *std::next(calls.begin(), below(static_cast<int>(calls.size())));
    const bool is_first = !std::exchange(call.has_ended, true);
    const PaidReply paid = reply();
    const int way = below(4);
    Answer expected = Answer::done;
    if (is_first && way < 2) {
      std::tie(call.is_held, expected) = count(paid);
    } else if (is_first) {
      call.is_held = false;
    }
    const Answer answer = answer_of([&] {
      HeldShare moved = way == 1 ? std::move(call.share) : HeldShare();
      switch (way) {
        case 0:
          return call.share.settle(paid);
        case 1:
          return moved.settle(paid);
        case 2:
          return call.share.release();
        default:
          call.share = std::move(moved);
      }
    });
    require(answer == expected);
  }

  FuzzedDataProvider& data;
  const bool is_wild = data.ConsumeBool();

  struct Call {
    HeldShare share;
    double amount;
    bool is_held = true;  ///< Also where a cached reply ended it, which gives nothing back.
    bool has_ended = false;
  };
  std::list<Call> calls;
};

}  // namespace decision_bounds
