#pragma once

#include <time.h>

namespace vantrel {

// The time since some fixed moment, which no change of the wall clock moves.
// Tests link their own in its place, see monotonic_clock_testing.h.
timespec MonotonicNow();

}  // namespace vantrel
