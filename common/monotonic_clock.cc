#include "common/monotonic_clock.h"

namespace vantrel {

timespec MonotonicNow() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

}  // namespace vantrel
