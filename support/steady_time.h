#pragma once

#include <chrono>

namespace vantrel {

// Where time matters a function is told the time, so that a test has a clock
// of its own.
using SteadyTime = std::chrono::steady_clock::time_point;

inline SteadyTime GetSteadyTime() { return std::chrono::steady_clock::now(); }

}  // namespace vantrel
