#pragma once

#include <stdint.h>

namespace vantrel {

// The UID of nobody: of control messages, and of flows whose owner was not
// found. No application has it.
constexpr uint32_t kNobodyUid = 0xFFFFFFFF;

}  // namespace vantrel
