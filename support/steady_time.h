#pragma once

#include <stdint.h>

#include <chrono>

namespace vantrel {

// Where time matters a function is told the time, so that a test has a clock
// of its own.
using SteadyTime = std::chrono::steady_clock::time_point;

inline SteadyTime GetSteadyTime() { return std::chrono::steady_clock::now(); }

// Whole milliseconds of |time|, which is not below zero.
inline uint64_t ToMs(SteadyTime::duration time) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

}  // namespace vantrel
