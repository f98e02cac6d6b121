#pragma once

#include <time.h>

namespace vantrel {

// The time since some fixed moment, which no change of the wall clock moves.
timespec MonotonicNow();

// For tests: MonotonicNow() runs ahead of the real clock by so many seconds.
void SetMonotonicClockLead(time_t seconds);

}  // namespace vantrel
