#pragma once

/// What the fuzzers share.

#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

namespace decision_bounds {

/// Ends the process where a promise is broken; the fuzzer then keeps the input that broke it.
inline void require(bool kept) {
  if (!kept) {
    std::abort();
  }
}

}  // namespace decision_bounds
