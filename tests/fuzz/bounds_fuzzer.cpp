// Programs of operations on the bounds in plain C++, beside models: of a pass and of a day, one
// that keeps only the calls in flight and what those that ended used. Callbacks throw, and end
// calls while a call waits.

#include <chrono>
#include <cmath>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "program.hpp"

namespace decision_bounds {

namespace {

bool are_same(double left, double right) {
  return left == right || (std::isnan(left) && std::isnan(right));
}

/// A pass beside its model.
class PassProgram final : Program {
 public:
  using Program::Program;

  void run() {
    while (data.remaining_bytes() > 0) {
      one_in(2) ? hold() : end_one();
      compare();
    }
    for (Call& call : calls) {
      if (std::exchange(call.is_held, false) && call.has_ended) {
        budget.release(call.amount);  // A cached reply has given nothing back.
      }
      call.share.release();
    }
    compare();
  }

 private:
  std::pair<bool, Answer> count(const PaidReply& reply) override {
    if (reply.cached) {
      ++used.cache_hits;
      return {true, Answer::done};
    }
    ++used.calls;
    used.input_tokens =
        static_cast<std::int64_t>(native::Count(used.input_tokens) + reply.input_tokens);
    used.cost_usd += reply.cost;
    return {false, Answer::done};
  }

  bool is_exhausted() const {
    return used.calls + holdings().holders >= max_calls || used.input_tokens >= max_tokens;
  }

  void hold() {
    constexpr Answer answers[] = {Answer::done, Answer::stopped, Answer::thrown};
    const double amount = share();
    const Answer on_entry = one_in(4) ? answers[below(3)] : Answer::done;
    const Answer while_waiting = answers[1 + below(2)];
    Answer expected = on_entry;
    if (on_entry == Answer::done) {
      expected = is_exhausted() ? Answer::refused
                 : has_room(amount, static_cast<double>(used.input_tokens),
                            static_cast<double>(max_tokens))
                     ? Answer::done
                     : while_waiting;
    }
    int asked = 0;
    budget.should_stop = [&] {
      const Answer answer = asked++ == 0 ? on_entry : while_waiting;
      if (asked > 1) {
        end_one();
      }
      return answer == Answer::thrown ? throw Thrown() : answer == Answer::stopped;
    };
    const Answer answer = answer_of([&] { calls.push_back({budget.hold(amount), amount}); });
    require(answer == expected || is_wild);
  }

  void compare() {
    const native::PassSnapshot now = snapshot(budget);
    require(now.calls == used.calls && now.cache_hits == used.cache_hits);
    require(now.input_tokens == used.input_tokens && are_same(now.cost_usd, used.cost_usd));
    require(now.in_flight == holdings().holders);
    require_held(now.held);
    require(budget.exhausted() == is_exhausted());
    require(!budget.summary().text().empty());
  }

  const std::int64_t max_calls = tokens();
  const std::int64_t max_tokens = tokens();
  native::RunBudget budget{.max_calls = max_calls, .max_tokens = max_tokens};
  native::PassSnapshot used;
};

/// The account of a day beside its model.
class DayProgram final : Program, native::Log {
 public:
  using Program::Program;

  void run() {
    while (data.remaining_bytes() > 0) {
      date = one_in(8) ? below(40) : date;
      is_dated = !one_in(16);
      const int operation = below(8);
      if (operation == 0) {
        const Answer expected = roll();
        require(answer_of([&] { require(are_same(spend.spent(), used)); }) == expected);
      } else if (operation == 1) {
        const PaidReply lost = reply();
        const Answer expected = count(lost).second;
        require(answer_of([&] { spend.charge(lost); }) == expected);
      } else if (operation < 5) {
        admit();
      } else {
        end_one();
      }
      require_held(snapshot(spend).held);
      require(are_same(snapshot(spend).spent_usd, used));
      require(warnings == expected_warnings);
    }
    for (Call& call : calls) {
      call.share.release();
      call.is_held = false;
    }
    require_held(snapshot(spend).held);
  }

 private:
  void warning(const std::string& text) override {
    require(!text.empty());
    ++warnings;
  }
  std::chrono::sys_days today() const {
    return is_dated ? std::chrono::sys_days(std::chrono::days(date)) : throw Thrown();
  }
  /// What was paid since a date; of some dates it cannot be read.
  double paid_since(int day) const {
    return day % 4 == 0   ? throw std::runtime_error("no record")
           : day % 4 == 1 ? throw Thrown()
                          : paid;
  }

  /// The model of a day that is looked at.
  Answer roll() {
    if (!is_dated) {
      return Answer::thrown;
    }
    if (date != counted_date) {
      try {
        used = paid_since(date);
      } catch (const Thrown&) {
        return Answer::thrown;
      } catch (const std::runtime_error&) {
        used = 0.0;
        ++expected_warnings;
      }
      counted_date = date;
      is_warned = false;
    }
    return Answer::done;
  }
  std::pair<bool, Answer> count(const PaidReply& reply) override {
    const Answer answer = roll();
    used += answer == Answer::done ? reply.cost : 0.0;
    return {false, answer};
  }

  void admit() {
    constexpr Answer answers[] = {Answer::stopped, Answer::late, Answer::thrown};
    const double amount = share();
    const Answer of_bound = one_in(8) ? Answer::thrown : Answer::done;
    const Answer while_waiting = answers[below(3)];
    Answer expected = roll();
    if (expected == Answer::done && !(used < cap)) {
      expected = Answer::refused;
      expected_warnings += std::exchange(is_warned, true) ? 0 : 1;
    } else if (expected == Answer::done) {
      expected = of_bound;
      if (of_bound == Answer::done && !has_room(amount, used, cap)) {
        expected = while_waiting;
      }
    }
    const auto bound = [&] { return of_bound == Answer::thrown ? throw Thrown() : amount; };
    const native::Waits waits{
        .deadline = 1.0,
        .clock = [&] { return while_waiting == Answer::thrown ? throw Thrown() : 2.0; },
        .stopping = [&] { return while_waiting == Answer::stopped; }};
    const Answer answer = answer_of([&] { calls.push_back({spend.admit(bound, waits), amount}); });
    require(answer == expected || is_wild);
  }

  const double cap = usd();
  const double paid = usd();
  int date = 2;
  bool is_dated = true;
  int warnings = 0;
  native::DailySpend spend{cap, [&] { return today(); },
                           [&](std::chrono::sys_days day) {
                             return paid_since(static_cast<int>(day.time_since_epoch().count()));
                           },
                           this};
  double used = 0.0;
  int counted_date = -1;
  bool is_warned = false;
  int expected_warnings = 0;
};

/// The dearest charges of a model, as a whole and per byte.
struct Dearest {
  void learn(double bytes, double charge) {
    per_byte = std::fmax(per_byte, charge / bytes);
    per_call = std::fmax(per_call, charge);
  }
  double of(double bytes) const {
    const double by_size = per_byte * bytes;
    return per_call > by_size ? per_call : by_size;
  }

  double per_byte = 0.0;
  double per_call = 0.0;
};

/// The learned rates beside their model.
void run_rates(FuzzedDataProvider& data) {
  native::RequestRates rates;
  Dearest usd;
  Dearest tokens;
  std::set<std::string> known;
  while (data.remaining_bytes() > 0) {
    const std::string feature(1, data.PickValueInArray({'a', 'b', 'c'}));
    const auto size = data.ConsumeIntegral<std::int64_t>();
    const auto bytes = static_cast<double>(size);
    if (data.ConsumeBool()) {
      const PaidReply reply{.input_tokens = data.ConsumeIntegral<std::int64_t>(),
                            .cost = data.ConsumeFloatingPoint<double>()};
      rates.learn(size, feature, reply);
      known.insert(feature);
      usd.learn(std::fmax(bytes, 1.0), reply.cost);
      tokens.learn(std::fmax(bytes, 1.0), static_cast<double>(reply.input_tokens));
    }
    require(are_same(rates.cost(size, feature), known.contains(feature) ? usd.of(bytes) : unknown));
    require(are_same(rates.tokens(size), known.empty() ? unknown : tokens.of(bytes)));
  }
}

}  // namespace

void fuzz(FuzzedDataProvider& data) {
  switch (data.ConsumeIntegralInRange(0, 2)) {
    case 0:
      return PassProgram(data).run();
    case 1:
      return DayProgram(data).run();
    default:
      return run_rates(data);
  }
}

}  // namespace decision_bounds
