#pragma once

#include <stdint.h>

namespace vantrel {

// Stands in place of a Linux UID, all bits set: an owner that was not found,
// and traffic that is charged to nobody.
constexpr uint32_t kNobodyUid = 0xFFFFFFFF;

}  // namespace vantrel
