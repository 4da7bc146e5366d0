#include "client.hpp"

#include <exception>
#include <optional>
#include <utility>

namespace cpp_pass {

namespace {

constexpr int max_output_tokens = 100;

/// The most that a call may come to: no token is shorter than a byte, and the endpoint ends its
/// answer at the tokens that it was asked for.
native::PaidReply dearest_reply(const std::string& request) {
  const auto input_tokens = static_cast<std::int64_t>(request.size()) + 1;
  return {.input_tokens = input_tokens,
          .cost = static_cast<double>(input_tokens) * usd_per_input_token +
                  max_output_tokens * usd_per_output_token};
}

}  // namespace

std::chrono::sys_days utc_today() {
  return std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
}

double clock_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Client::Client(Endpoint& endpoint, Ledger& ledger, double daily_cost_cap_usd, native::Log& log)
    : endpoint_(endpoint),
      ledger_(ledger),
      spend_(
          daily_cost_cap_usd, utc_today,
          [&ledger](std::chrono::sys_days day) { return ledger.paid_since(day); }, &log) {}

void Client::decide(const std::string& request, native::RunBudget& pass) {
  const native::PaidReply dearest = dearest_reply(request);
  // The pass first: a call that waits for its tokens then holds nothing of the day.
  native::HeldShare tokens = pass.hold(static_cast<double>(dearest.input_tokens));
  native::HeldShare usd =
      spend_.admit([&] { return dearest.cost; }, {.stopping = [&pass] { return pass.stopping(); }});
  call(request, dearest, std::move(tokens), std::move(usd));
}

void Client::decide_within(const std::string& request, double timeout_s) {
  const native::PaidReply dearest = dearest_reply(request);
  native::HeldShare usd = spend_.admit([&] { return dearest.cost; },
                                       {.deadline = clock_s() + timeout_s, .clock = clock_s});
  call(request, dearest, {}, std::move(usd));
}

void Client::call(const std::string& request, const native::PaidReply& dearest,
                  native::HeldShare tokens, native::HeldShare usd) {
  // From here on the attempt may be billed, so that it counts at its dearest until its reply says
  // what it cost, or a refusal says that it cost nothing.
  std::optional<native::PaidReply> paid = dearest;
  std::exception_ptr failure;
  try {
    paid = endpoint_.ask(request, max_output_tokens);
  } catch (const Refused&) {
    paid.reset();
    failure = std::current_exception();
  } catch (...) {
    failure = std::current_exception();
  }
  if (paid) {
    usd.settle(*paid);
    tokens.settle(*paid);
    // After the shares: a day that starts in between then counts the call once.
    ledger_.record(utc_today(), paid->cost);
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

}  // namespace cpp_pass
