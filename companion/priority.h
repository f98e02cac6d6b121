#pragma once

#include <stddef.h>

namespace vantrel {

// Of a flow that waits for the link, beside other flows.
enum class Priority { kHigh, kNormal, kLow };
constexpr size_t kPriorities = 3;

}  // namespace vantrel
