#include "ledger.hpp"

#include <fstream>
#include <iomanip>
#include <limits>
#include <stdexcept>
#include <string>

#include "decision_bounds/text.hpp"

namespace cpp_pass {

using decision_bounds::date_text;

double Ledger::paid_since(std::chrono::sys_days day) {
  const std::lock_guard held(lock_);
  if (!std::filesystem::exists(file_)) {
    return 0.0;
  }
  std::ifstream lines(file_);
  double paid_usd = 0.0;
  double usd = 0.0;
  for (std::string date; lines >> date >> usd;) {
    if (date >= date_text(day)) {
      paid_usd += usd;
    }
  }
  if (!lines.eof()) {
    throw std::runtime_error(file_.string() + " is no ledger");
  }
  return paid_usd;
}

void Ledger::record(std::chrono::sys_days day, double usd) {
  const std::lock_guard held(lock_);
  std::ofstream lines(file_, std::ios::app);
  lines << date_text(day) << ' ' << std::setprecision(std::numeric_limits<double>::max_digits10)
        << usd << '\n'
        << std::flush;
  if (!lines) {
    throw std::runtime_error(file_.string() + " cannot be written");
  }
}

}  // namespace cpp_pass
