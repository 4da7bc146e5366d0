#pragma once

/// Where a daily cap logs in plain C++.

#include <string>

namespace decision_bounds::native {

/// Takes the two warnings of a daily cap: it is reached, and the ledger could not be read. The
/// second comes with the account's lock held: `warning` must not use the account, nor throw.
class Log {
 public:
  Log() = default;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  virtual ~Log() = default;

  virtual void warning(const std::string& text) = 0;
};

}  // namespace decision_bounds::native
