#pragma once

#include "common/host_and_port.h"

namespace vantrel {

// Where the redirected connection |fd| was meant to go. False, with errno set,
// when it was not redirected. Tests, which have no connection tracking, link
// their own in its place, see original_destination_testing.h.
[[nodiscard]] bool GetOriginalDestination(int fd, HostAndPort* destination);

}  // namespace vantrel
