#pragma once

/// What the fuzzers share.

#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

namespace decision_bounds {

/// What a fuzzer does with an input; each defines it.
void fuzz(FuzzedDataProvider& data);

/// Ends the process where a promise is broken; the input that broke it is then kept.
inline void require(bool kept) {
  if (!kept) {
    std::abort();
  }
}

}  // namespace decision_bounds
