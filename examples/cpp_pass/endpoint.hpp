#pragma once

/// A metered endpoint in this process, with play money: put your client library in its place.

#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>

#include "decision_bounds/native_reply.hpp"

namespace cpp_pass {

inline constexpr double usd_per_input_token = 3e-6;
inline constexpr double usd_per_output_token = 15e-6;

/// The endpoint refused the attempt and bills nothing for it.
struct Refused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The answer was not read; whether the attempt is billed is not known.
struct AnswerLost : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Refuses one attempt in 11, and loses one answer in 7, which it bills all the same. Any thread
/// may ask.
class Endpoint {
 public:
  /// The endpoint stops an answer at `max_output_tokens`. Throws `Refused` or `AnswerLost`.
  decision_bounds::native::PaidReply ask(const std::string& request, int max_output_tokens);

  /// What it has billed so far, USD.
  double billed_usd();

 private:
  std::mutex lock_;
  std::int64_t attempts_ = 0;
  double billed_usd_ = 0.0;
};

}  // namespace cpp_pass
