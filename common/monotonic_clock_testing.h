// For unit tests and fuzz targets, which link this clock in place of the real
// one.
#pragma once

#include <time.h>

namespace vantrel {

// MonotonicNow() runs ahead of the real clock by so many seconds from now on.
void SetMonotonicClockLead(time_t seconds);

}  // namespace vantrel
