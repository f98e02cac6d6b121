#pragma once

#include <chrono>

namespace vantrel {

using SteadyTime = std::chrono::steady_clock::time_point;

inline SteadyTime Now() { return std::chrono::steady_clock::now(); }

}  // namespace vantrel
