// Random walks of the bounds in plain C++, each step beside the model.

#include "walk.hpp"

#include <set>
#include <stdexcept>
#include <string>

namespace decision_bounds {

constexpr int walks = 2000;
constexpr int steps = 60;

/// A pass beside its model.
struct PassWalk : Walk {
  ScriptedCondition& changed() override { return budget->changed_; }
  Effect count(const PaidReply& reply, const Admitted& call) override {
    if (reply.cached) {
      ++hits;
      budget->release(call.amount);  // A cached reply gives nothing back.
      return {.wakes = false};
    }
    ++settled;
    tokens += reply.input_tokens;
    cost += call.is_readable ? reply.cost : 0.0;
    return {.wakes = call.is_readable, .fails = !call.is_readable};
  }
  /// What the rules say of a call that is not asleep.
  std::optional<Answer> decide(double share) const {
    if (settled + static_cast<int>(in_flight.shares.size()) >= max_calls || tokens >= max_tokens) {
      return Answer::refused;
    }
    if (in_flight.has_room(share, static_cast<double>(tokens), max_tokens)) {
      return answer_of_admission();
    }
    if (stop_fails) {
      return Answer::failed;
    }
    return stop ? std::optional(Answer::stopped) : std::nullopt;
  }
  void hold() {
    const double share = dice.share();
    choose_faults();
    expected = stop ? Answer::stopped : decide(share);
    changed().taken = 0;
    changed().sleeps.clear();
    changed().asleep = [&] {
      EXPECT_EQ(expected, std::nullopt);
      end_one();
      stop = stop || dice.one_in(8);
      stop_fails = dice.one_in(8);
      expected = decide(share);
    };
    EXPECT_EQ(answer_of([&] { admitted(budget->hold(share, host), share); }), expected);
    EXPECT_TRUE(expected != Answer::admitted || changed().taken == 1);
    stop_fails = false;
  }
  void compare() {
    const auto summary = budget->summary();
    EXPECT_EQ(summary.calls, settled);
    EXPECT_EQ(summary.cache_hits, hits);
    EXPECT_EQ(summary.input_tokens, tokens);
    EXPECT_EQ(budget->cost, cost);
    EXPECT_EQ(budget->in_flight, static_cast<std::int64_t>(in_flight.shares.size()));
    EXPECT_TRUE(in_flight.is_held_as(budget->held_tokens_));
    EXPECT_EQ(budget->exhausted(),
              settled + budget->in_flight >= max_calls || tokens >= max_tokens);
    EXPECT_EQ(changed().levels, 0);
  }

  std::optional<RunBudget<Scripted>> budget;
  bool stop_fails = false;
  int max_calls = 0;
  int max_tokens = 0;
  int settled = 0;
  int hits = 0;
  std::int64_t tokens = 0;
  double cost = 0.0;
};

TEST_F(PassWalk, IsAsTheModelSays) {
  for (int walk = 0; walk < walks && !HasFailure(); ++walk) {
    max_calls = dice.below(20);
    max_tokens = dice.below(40);
    budget.emplace(
        RunBudget<Scripted>{.max_calls = max_calls, .max_tokens = max_tokens, .should_stop = [&] {
                              return stop_fails ? interrupt() > 0.0 : stop;
                            }});
    budget->held_tokens_.lock = &changed();
    settled = hits = 0;
    tokens = 0;
    cost = 0.0;
    stop = false;
    in_flight.shares.clear();
    for (int step = 0; step < steps && !HasFailure(); ++step) {
      dice.one_in(2) ? hold() : end_one();
      stop = stop && !dice.one_in(3);
      compare();
    }
    calls.clear();
    in_flight.shares.clear();
    budget->release(dice.share());  // Of a call that holds nothing.
    compare();
    EXPECT_TRUE(is_idle(changed(), budget->held_tokens_)) << "walk " << walk;
  }
}

/// The account of a day beside its model.
struct DayWalk : Walk, native::Log {
  DayWalk() { host.log = this; }
  ScriptedCondition& changed() override { return account->changed_; }
  void warning(const std::string& text) override {
    ++warnings;
    if (text.starts_with("The daily")) {
      EXPECT_TRUE(account->capped_) << "another refusal would warn again";
      EXPECT_EQ(changed().levels, 0) << "the log may take its time";
    }
  }

  /// The model of a date that changes: what the ledger has, in every second month.
  void roll() {
    if (date != counted_date) {
      counted_date = date;
      ++ledger_reads_expected;
      used = is_readable(date) ? ledger_usd : 0.0;
      is_warned = false;
      warnings_expected += is_readable(date) ? 0 : 1;
    }
  }
  static bool is_readable(const std::string& date) { return date.back() % 2 == 0; }
  double read_ledger(const std::string& day) {
    ++ledger_reads;
    return is_readable(day) ? ledger_usd : throw std::runtime_error("it cannot be read");
  }
  Effect count(const PaidReply& reply, const Admitted& call) override {
    roll();
    used += call.is_readable ? reply.cost : 0.0;
    return {.fails = !call.is_readable};
  }
  double bound() {
    EXPECT_EQ(expected, std::nullopt) << "not asked where the cap is reached";
    if (dice.one_in(16)) {
      expected = Answer::failed;
      return interrupt();
    }
    share = dice.share();
    if (in_flight.has_room(share, used, cap)) {
      expected = answer_of_admission();
    } else if (stop) {
      expected = Answer::stopped;
    } else if (deadline && now >= *deadline) {
      expected = Answer::late;
    }
    return share;
  }
  void test_cap() {
    roll();
    expected = used < cap ? std::nullopt : std::optional(Answer::refused);
  }
  void admit() {
    choose_faults();
    deadline.reset();
    if (dice.one_in(2)) {
      deadline = now + dice.amount();
    }
    changed().taken = 0;
    changed().sleeps.clear();
    changed().asleep = [&] {
      EXPECT_EQ(expected, std::nullopt);
      end_one();
      now += 0.125;
      stop = stop || dice.one_in(8);
      move_date();
      test_cap();
    };
    test_cap();
    const Answer answer = answer_of([&] {
      HeldShare held = account->admit([&] { return bound(); }, deadline, [&] { return now; },
                                      [&] { return stop; }, host);
      admitted(std::move(held), share);
    });
    EXPECT_EQ(answer, expected);
    EXPECT_EQ(changed().taken, 1);
    if (answer == Answer::refused && !std::exchange(is_warned, true)) {
      ++warnings_expected;
    }
  }
  void move_date() {
    if (dice.one_in(10)) {
      date.back() = static_cast<char>('0' + dice.below(10));
    }
  }
  void compare() {
    roll();
    EXPECT_EQ(account->spent(host), used);
    EXPECT_TRUE(in_flight.is_held_as(account->held_));
    EXPECT_EQ(changed().levels, 0);
    EXPECT_EQ(warnings, warnings_expected);
    EXPECT_EQ(ledger_reads, ledger_reads_expected);
  }

  static constexpr double ledger_usd = 1.5;
  std::optional<DailySpend<Scripted>> account;
  double cap = 0.0;
  double used = 0.0;
  double share = 0.0;  ///< What the call that is asking was last told that it may cost.
  double now = 0.0;
  std::optional<double> deadline;
  std::string date = "2024-03-01";
  std::string counted_date;
  bool is_warned = false;
  int ledger_reads = 0;
  int ledger_reads_expected = 0;
  int warnings = 0;
  int warnings_expected = 0;
};

TEST_F(DayWalk, IsAsTheModelSays) {
  for (int walk = 0; walk < walks && !HasFailure(); ++walk) {
    cap = dice.amount() * 4;
    account.emplace(
        DailySpend<Scripted>{.cap = cap,
                             .today = [&] { return date; },
                             .ledger = [&](const std::string& day) { return read_ledger(day); }});
    account->held_.lock = &changed();
    counted_date.clear();
    in_flight.shares.clear();
    for (int step = 0; step < steps && !HasFailure(); ++step) {
      move_date();
      if (dice.one_in(2)) {
        admit();
      } else if (dice.one_in(8)) {
        roll();
        const PaidReply reply = dice.reply();
        used += reply.cost;
        host.cost_is_unreadable = false;
        const int wake_alls = changed().wake_alls;
        account->charge(reply, host);
        EXPECT_EQ(changed().wake_alls, wake_alls + 1);
      } else {
        end_one();
      }
      stop = stop && !dice.one_in(3);
      compare();
    }
    calls.clear();
    EXPECT_TRUE(is_idle(changed(), account->held_)) << "walk " << walk;
  }
}

TEST(RatesWalk, IsAsTheModelSays) {
  Dice dice(2024);
  for (int walk = 0; walk < walks && !::testing::Test::HasFailure(); ++walk) {
    native::RequestRates rates;
    std::set<std::string> known;
    std::vector<std::pair<int, PaidReply>> learned;
    for (int step = 0; step < steps; ++step) {
      const int size = dice.below(6) - 1;
      const std::string feature(1, static_cast<char>('a' + dice.below(3)));
      if (dice.one_in(4)) {
        learned.emplace_back(size, dice.reply());
        known.insert(feature);
        rates.learn(size, feature, learned.back().second);
      }
      double cost = 0.0;
      double tokens = 0.0;
      for (const auto& [learned_size, reply] : learned) {
        const double bytes = std::max(learned_size, 1);
        const auto used = static_cast<double>(reply.input_tokens);
        cost = std::max({cost, reply.cost, reply.cost / bytes * size});
        tokens = std::max({tokens, used, used / bytes * size});
      }
      EXPECT_EQ(rates.cost(size, feature), known.contains(feature) ? cost : unknown);
      EXPECT_EQ(rates.tokens(size), learned.empty() ? unknown : tokens);
    }
  }
}

}  // namespace decision_bounds
