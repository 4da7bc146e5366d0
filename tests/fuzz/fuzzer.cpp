// The entry that libFuzzer calls.

#include "fuzzer.hpp"

#include <cstddef>
#include <cstdint>

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  decision_bounds::fuzz(data);
  return 0;
}
