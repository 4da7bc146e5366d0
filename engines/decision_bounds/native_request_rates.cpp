#include "decision_bounds/native_request_rates.hpp"

namespace decision_bounds {

template struct RequestRates<native::Native>;

}  // namespace decision_bounds
