#include "Kiv/Clock.h"

#include <chrono>

namespace Kiv {

static long long monotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

MonotonicClock::MonotonicClock() : startNs_(monotonicNs()) {}

Seconds MonotonicClock::now() const {
  return static_cast<Seconds>(monotonicNs() - startNs_) * 1e-9;
}

}  // namespace Kiv
