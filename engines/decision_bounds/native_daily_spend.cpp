#include "decision_bounds/native_daily_spend.hpp"

#include <utility>

#include "decision_bounds/text.hpp"

namespace decision_bounds {

template struct DailySpend<native::DailyNative>;

namespace native {

namespace {

/// No date of a program: the first use starts a day.
constexpr std::chrono::sys_days before_all = std::chrono::sys_days::min();

}  // namespace

HeldShare DailyNative::make_share(decision_bounds::DailySpend<DailyNative>& spend,
                                  double held) const {
  return HeldShare(
      [&spend, held, host = *this](const PaidReply* reply) { spend.give_back(held, reply, host); });
}

void DailyNative::warn_of_error(const char* text, std::chrono::sys_days day,
                                const std::exception& error) const {
  Native::warn_of_error(text, date_text(day), error);
}

DailySpend::DailySpend(double cap_usd, DailyNative::DateFunction today, DailyNative::Ledger ledger,
                       Log* log)
    : account_{.cap = cap_usd,
               .today = std::move(today),
               .ledger = std::move(ledger),
               .day_ = before_all},
      host_{{.log = log}} {}

DaySnapshot snapshot(DailySpend& spend) {
  auto& account = spend.account_;
  const std::lock_guard held(account.changed_);
  return {account.day_ == before_all ? std::nullopt : std::optional(account.day_), account.cost_,
          account.held_.holdings()};
}

}  // namespace native

}  // namespace decision_bounds
