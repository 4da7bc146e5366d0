#pragma once

/// What a request may cost and use, learned from the replies, in plain C++.

#include "decision_bounds/native_host.hpp"
#include "decision_bounds/request_rates.hpp"

namespace decision_bounds {

extern template struct RequestRates<native::Native>;

namespace native {

using RequestRates = decision_bounds::RequestRates<Native>;

}  // namespace native

}  // namespace decision_bounds
