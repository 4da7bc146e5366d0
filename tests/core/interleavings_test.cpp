// Every order of two and three calls of one bound: whom it admits and lets wait, and what is left.

#include "interleavings.hpp"

#include <iostream>
#include <optional>
#include <utility>
#include <vector>

namespace decision_bounds {

using native::HeldShare;
using native::PaidReply;

constexpr int limit = 10;  ///< Of each bound: tokens or USD.
constexpr int call_slots = 2;

/// How one call goes: what it holds, and what it used, if it was paid.
struct Course {
  double share = 0.0;
  std::optional<int> used{};
  Fault fault = Fault::none;
};

/// What a reader of the rules has in his books. They are written in the same step in which the
/// bound changes: no call goes on between the end of an operation and the caller's next point.
struct Books {
  void admitted(double share) {
    EXPECT_LT(used + held, limit);
    EXPECT_EQ(alone, 0);
    EXPECT_TRUE(share != unknown || in_flight == 0) << "it runs alone";
    ++in_flight;
    alone += share == unknown ? 1 : 0;
    held += share == unknown ? 0.0 : share;
  }
  void ended(const Course& course) {
    --in_flight;
    alone -= course.share == unknown ? 1 : 0;
    held -= course.share == unknown ? 0.0 : course.share;
    calls += course.used ? 1 : 0;
    used += course.used.value_or(0);
  }

  int used = 0;
  double held = 0.0;
  int calls = 0;
  int in_flight = 0;
  int alone = 0;
  int failing = 0;  ///< Calls that may have a slot for a moment, until no share can be made for it.
};

Ordered faulty(Fault fault) {
  Ordered host;
  host.fault = fault;
  return host;
}

/// The budget of a pass under the courses.
struct PassUnderTest {
  PassUnderTest() { budget.held_tokens_.lock = &budget.changed_; }

  HeldShare admit(const Course& course) { return budget.hold(course.share, faulty(course.fault)); }
  static PaidReply reply(int used) { return {.input_tokens = used, .cost = 1.0}; }
  bool refuses(const Books& books) const {
    return books.calls + books.in_flight + books.failing >= call_slots || books.used >= limit;
  }
  bool ended_as(const Books& books) const {
    return is_idle(budget.changed_, budget.held_tokens_) && budget.in_flight == 0 &&
           budget.calls == books.calls && budget.input_tokens == books.used;
  }

  bool stop = false;
  RunBudget<Ordered> budget{
      .max_calls = call_slots, .max_tokens = limit, .should_stop = [this] { return stop; }};
};

/// The account of a day under the courses.
struct DayUnderTest {
  DayUnderTest() { account.held_.lock = &account.changed_; }

  HeldShare admit(const Course& course) {
    const auto now = [] { return double(OrderedCondition::scheduler->now()); };
    return account.admit([&] { return course.share; }, deadline, now, {}, faulty(course.fault));
  }
  static PaidReply reply(int used) { return {.cost = double(used)}; }
  static bool refuses(const Books& books) { return books.used >= limit; }
  bool ended_as(const Books& books) const {
    return is_idle(account.changed_, account.held_) && account.cost_ == books.used;
  }

  Ordered::Deadline deadline;
  DailySpend<Ordered> account{.cap = limit, .today = [] { return "2024-02-29"; }};
};

/// Runs a call from its admission to its end, with `meanwhile` in between, and keeps the books.
template <typename Bound>
void run(
    Bound& bound, Books& books, const Course& course,
    const std::function<void()>& meanwhile = [] {}) {
  bool admitted = false;
  const bool fails = course.fault == Fault::share_cannot_be_made;
  books.failing += fails ? 1 : 0;
  try {
    HeldShare share = bound.admit(course);
    books.admitted(course.share);
    admitted = true;
    meanwhile();
    if (course.used) {
      share.settle(bound.reply(*course.used));
    } else {
      share.release();
    }
    books.ended(course);
  } catch (const DecisionBudgetExceeded&) {
    EXPECT_TRUE(bound.refuses(books));
  } catch (const Interrupt&) {
    if (admitted) {
      books.ended({.share = course.share});
    }
  }
  books.failing -= fails ? 1 : 0;
}

/// Every choice of `count` of the courses, each of which may be chosen again.
std::vector<std::vector<Course>> choices(const std::vector<Course>& courses, std::size_t count,
                                         std::size_t first = 0) {
  if (count == 0) {
    return {{}};
  }
  std::vector<std::vector<Course>> found;
  for (std::size_t index = first; index < courses.size(); ++index) {
    for (std::vector<Course>& rest : choices(courses, count - 1, index)) {
      rest.push_back(courses[index]);
      found.push_back(std::move(rest));
    }
  }
  return found;
}

/// One bound and its books, anew for each order.
template <typename Bound>
struct Tried {
  std::optional<Bound> bound;
  Books books;
  int orders = 0;

  ~Tried() { std::cout << orders << " orders\n"; }

  void try_every_order(Scheduler& scheduler,
                       const std::function<void(Scheduler::Calls& calls)>& add_calls) {
    orders += scheduler.each_order(
        [&] {
          bound.emplace();
          books = {};
          Scheduler::Calls calls;
          add_calls(calls);
          return calls;
        },
        [&] { EXPECT_TRUE(bound->ended_as(books)); });
  }
  void add(Scheduler::Calls& calls, const Course& course, int rounds = 1) {
    calls.emplace_back([this, course, rounds] {
      for (int round = 0; round < rounds; ++round) {
        run(*bound, books, course);
      }
    });
  }
};

/// Runs two calls that go their courses twice, and three that go them once, in every order.
template <typename Bound>
void run_in_every_order(const std::vector<Course>& courses) {
  Tried<Bound> tried;
  for (const std::size_t count : {2U, 3U}) {
    Scheduler scheduler(count, /*time_passes=*/false);
    for (const std::vector<Course>& chosen : choices(courses, count)) {
      tried.try_every_order(scheduler, [&](Scheduler::Calls& calls) {
        for (const Course& course : chosen) {
          tried.add(calls, course, count == 2 ? 2 : 1);
        }
      });
    }
  }
}

const std::vector<Course> paid_or_not = {
    {6.0, 6}, {6.0}, {10.0, 4}, {unknown, 6}, {unknown}, {0.0, 10}, {0.0},
};
const std::vector<Course> faulty_or_not = {
    {6.0, 6},
    {unknown, 4},
    {6.0, 6, Fault::share_cannot_be_made},
    {unknown, 6, Fault::share_cannot_be_made},
};

TEST(Interleavings, OfCallsOfAPass) { run_in_every_order<PassUnderTest>(paid_or_not); }

TEST(Interleavings, OfCallsOfADay) { run_in_every_order<DayUnderTest>(paid_or_not); }

TEST(Interleavings, OfCallsThatFail) {
  run_in_every_order<PassUnderTest>(faulty_or_not);
  std::vector<Course> courses = faulty_or_not;
  courses.push_back({10.0, 6, Fault::cost_is_unreadable});
  run_in_every_order<DayUnderTest>(courses);
}

TEST(Interleavings, OfTwoBounds) {
  // Each call holds its share of the pass while it is admitted to the day.
  Tried<PassUnderTest> pass;
  Scheduler scheduler(3, /*time_passes=*/false);
  for (const std::vector<Course>& chosen : choices({{6.0, 6}, {unknown}}, 3)) {
    std::optional<DayUnderTest> day;
    Books paid;
    pass.try_every_order(scheduler, [&](Scheduler::Calls& calls) {
      day.emplace();
      paid = {};
      for (const Course& course : chosen) {
        calls.emplace_back(
            [&] { run(*pass.bound, pass.books, course, [&] { run(*day, paid, course); }); });
      }
    });
    EXPECT_TRUE(day->ended_as(paid));
  }
}

TEST(Interleavings, OfThoseWhoSettleOneShare) {
  Tried<DayUnderTest> tried;
  Scheduler scheduler(3, /*time_passes=*/false);
  std::optional<HeldShare> share;
  tried.try_every_order(scheduler, [&](Scheduler::Calls& calls) {
    share.reset();
    calls.emplace_back([&] {
      share.emplace(tried.bound->admit({6.0}));
      share->settle(DayUnderTest::reply(6));
    });
    calls.emplace_back([&] {
      scheduler.point([&] { return share.has_value(); });
      share->settle(DayUnderTest::reply(6));
    });
    tried.add(calls, {unknown});
    tried.books.used = 6;
  });
}

TEST(Interleavings, OfCallsAndAStop) {
  Tried<PassUnderTest> tried;
  Scheduler scheduler(3, /*time_passes=*/true);
  const auto any_time = [] { return true; };
  for (const std::vector<Course>& chosen : choices({{unknown, 4}, {10.0, 6}, {6.0}}, 2)) {
    tried.try_every_order(scheduler, [&](Scheduler::Calls& calls) {
      tried.bound->budget.should_stop = [&] {
        scheduler.point(any_time);
        return tried.bound->stop;
      };
      for (const Course& course : chosen) {
        calls.emplace_back([&] {
          try {
            run(*tried.bound, tried.books, course);
          } catch (const DecisionStopped&) {
            EXPECT_TRUE(tried.bound->stop);
          }
        });
      }
      calls.emplace_back([&] {
        scheduler.point(any_time);
        tried.bound->stop = true;
      });
    });
  }
}

TEST(Interleavings, OfCallsWithADeadline) {
  Tried<DayUnderTest> tried;
  Scheduler scheduler(3, /*time_passes=*/true);
  for (const std::vector<Course>& chosen : choices({{unknown, 4}, {10.0, 6}, {6.0}}, 3)) {
    tried.try_every_order(scheduler, [&](Scheduler::Calls& calls) {
      tried.bound->deadline = 1.0;
      for (const Course& course : chosen) {
        calls.emplace_back([&] {
          try {
            run(*tried.bound, tried.books, course);
          } catch (const DecisionTimeout&) {
            EXPECT_GE(scheduler.now(), 1);
          }
        });
      }
    });
  }
}

}  // namespace decision_bounds
