// For unit tests and fuzz targets, which have no connection tracking and link
// this in place of asking for it.
#pragma once

#include "common/host_and_port.h"

namespace vantrel {

// The original destination of every connection from now on; null where none was
// redirected, as at first. |destination| outlives its use.
void SetOriginalDestination(const HostAndPort* destination);

}  // namespace vantrel
