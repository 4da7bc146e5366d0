#pragma once

/// What was paid on which day, kept in a text file from one run to the next.

#include <chrono>
#include <filesystem>
#include <mutex>

namespace cpp_pass {

/// A file of lines `YYYY-MM-DD USD`. Any thread may use it; one process at a time.
class Ledger {
 public:
  explicit Ledger(std::filesystem::path file) : file_(std::move(file)) {}

  /// What was paid on `day` and later, USD; 0 where there is no file yet. Throws
  /// `std::runtime_error` where the file cannot be read.
  double paid_since(std::chrono::sys_days day);

  /// Adds a line. Throws `std::runtime_error` where it cannot be written.
  void record(std::chrono::sys_days day, double usd);

 private:
  std::filesystem::path file_;
  std::mutex lock_;
};

}  // namespace cpp_pass
