#include "endpoint.hpp"

#include <algorithm>
#include <chrono>
#include <thread>

namespace cpp_pass {

decision_bounds::native::PaidReply Endpoint::ask(const std::string& request,
                                                 int max_output_tokens) {
  using namespace std::chrono_literals;
  std::this_thread::sleep_for(5ms);
  const std::lock_guard held(lock_);
  const std::int64_t attempt = ++attempts_;
  if (attempt % 11 == 0) {
    throw Refused("too many requests");
  }
  const auto input_tokens = static_cast<std::int64_t>(request.size() / 4 + 1);
  const auto output_tokens = std::min<std::int64_t>(20 + attempt * 7 % 100, max_output_tokens);
  const double cost = static_cast<double>(input_tokens) * usd_per_input_token +
                      static_cast<double>(output_tokens) * usd_per_output_token;
  billed_usd_ += cost;
  if (attempt % 7 == 0) {
    throw AnswerLost("the connection was closed");
  }
  return {.input_tokens = input_tokens, .cost = cost};
}

double Endpoint::billed_usd() {
  const std::lock_guard held(lock_);
  return billed_usd_;
}

}  // namespace cpp_pass
