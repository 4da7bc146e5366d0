#include "python_host/host_call.hpp"

#include <chrono>
#include <thread>

namespace decision_bounds::python {

void sleep_for_good() {
  for (;;) {
    std::this_thread::sleep_for(std::chrono::hours(1));
  }
}

}  // namespace decision_bounds::python
