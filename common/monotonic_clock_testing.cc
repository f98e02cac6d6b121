#include "common/monotonic_clock_testing.h"

#include "common/monotonic_clock.h"

namespace vantrel {
namespace {

time_t lead_seconds = 0;

}  // namespace

timespec MonotonicNow() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  now.tv_sec += lead_seconds;
  return now;
}

void SetMonotonicClockLead(time_t seconds) { lead_seconds = seconds; }

}  // namespace vantrel
