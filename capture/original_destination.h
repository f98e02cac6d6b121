#pragma once

#include "common/host_and_port.h"

namespace vantrel {

// Where the redirected connection |fd| was meant to go. False, with errno set,
// when it was not redirected.
[[nodiscard]] bool GetOriginalDestination(int fd, HostAndPort* destination);

// For tests, which have no connection tracking: the answer for every |fd| from
// now on; null to ask the kernel again. |destination| outlives its use.
void SetOriginalDestination(const HostAndPort* destination);

}  // namespace vantrel
